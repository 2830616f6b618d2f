#!/usr/bin/env bash
# installed.sh: for a pristine machine (scripts/fresh SUITE tests/package/installed.sh), to which scripts/package has made
# the packages: installs them as a new user would, builds and runs the examples with nothing else, and removes them.
set -euo pipefail
suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
debs=$(cd "$(dirname "$0")/../../build/packages/$suite" && pwd)
fail() { echo "error: $*" >&2; exit 1; }
ok() { echo "ok: $*"; }

apt-get -qq update
apt-get -qq install -y --no-install-recommends g++ cmake make pkg-config >/dev/null 2>&1
find / -xdev \( -path /src -o -path /var -o -path /tmp \) -prune -o -type f -print | sort >/tmp/before
# shellcheck disable=SC2046 # one word a file
apt-get -qq -o Dpkg::Options::=--force-confold install -y --no-install-recommends $(find "$debs" -name '*.deb' ! -name '*-dbgsym_*') >/tmp/apt.log 2>&1 ||
  { cat /tmp/apt.log; fail "the packages cannot be installed"; }
ok "the packages are installed"
[ "$(id -gn koru)" = koru ] || fail "there is no user koru in a group of that name"
[ "$(id -nG koru | tr ' ' '\n' | sort | tr '\n' ' ')" = "i2c koru spi " ] || fail "koru is in other groups"
ok "the user and its groups are there"

said=$(systemd-analyze verify --man=no korud.service 2>&1) || true
[ -z "$said" ] || fail "systemd-analyze verify: $said"
systemd-analyze security --offline=yes --threshold=20 --no-pager korud.service >/tmp/security.log ||
  { tail -n 1 /tmp/security.log; fail "the service is exposed"; }
ok "the unit is sound"

examples=/usr/share/doc/koruregfile/examples
map=$examples/maps/ina219.csv
export KORU_STATE_DIR=/tmp/state
runs() { # runs EXAMPLE PROGRAM
  case $1 in
    quickstart) "$2" "$map" | grep -q 'CONFIGURATION holds 0x399f' ;;
    embedding) rm -rf "$KORU_STATE_DIR" && [ "$("$2" "$map")" = "CONFIGURATION <- 0x800" ] ;;
    *) "$2" >/dev/null ;;
  esac || fail "$2 does not what $1 is to do"
}
# What an agent wrote is there when it was killed.
cmake -S "$examples/embedding" -B /tmp/agent >/dev/null
cmake --build /tmp/agent >/dev/null
rm -rf "$KORU_STATE_DIR"
# shellcheck disable=SC2046 # words
g++ "$examples/embedding/agent.cpp" $(pkg-config --cflags --libs koruboard) -o /tmp/agent-by-hand
for expected in "/tmp/agent/embedding-agent:gain is 3" "/tmp/agent-by-hand:gain is 2"; do
  program=${expected%%:*} expected=${expected#*:}
  "$program" "$map" 2 >/tmp/agent.out &
  until [ "$(wc -l </tmp/agent.out)" = 2 ]; do kill -0 $! || fail "the agent has ended"; done
  kill -9 $!
  [ "$(head -n 1 /tmp/agent.out)" = "$expected" ] || fail "the agent says '$(head -n 1 /tmp/agent.out)'"
done
ok "an agent of one's own keeps its values when it is killed"
for example in quickstart embedding; do
  cmake -S "$examples/$example" -B "/tmp/$example" >/dev/null
  cmake --build "/tmp/$example" >/dev/null
  runs "$example" "/tmp/$example/$example"
  ok "$example, built by CMake, runs"
  # shellcheck disable=SC2046 # words
  g++ "$examples/$example/$example.cpp" $(pkg-config --cflags --libs koruregfile) -o "/tmp/$example-by-hand"
  runs "$example" "/tmp/$example-by-hand"
  ok "$example, built by pkg-config, runs"
done

cd "$examples/simulator"
korusim --state /tmp/simulated board.toml -- korureg --map power.csv --i2c /dev/i2c-1:0x40,word --json read VOLTAGE |
  grep -q '"value": 3300' || fail "korusim and korureg do not find a simulated chip"
ok "a simulated chip is read"
korusim --state /tmp/simulated board.toml -- python3 -c '
import koruregfile
print(hex(koruregfile.Device("power.csv", i2c="/dev/i2c-1:0x40,word")["VOLTAGE"]))' | grep -qx 0xce4 ||
  fail "the Python package does not read a register"
ok "Python reads a register"
bash -c 'source /usr/share/bash-completion/completions/korureg && COMP_WORDS=(korureg ma) COMP_CWORD=1 && _korureg &&
  echo "${COMPREPLY[@]}"' | grep -qx map || fail "bash does not complete"
ok "bash completes"
korud --check --config /etc/koru/korud.toml
for page in korud.8 korud.toml.5 korureg.1 korusim.1 koru-map.5 koruregfile.7; do
  [ -e "/usr/share/man/man${page##*.}/$page.gz" ] || fail "there is no page $page"
done
ok "all manual pages are there"
cd /

dpkg -P korud koruregfile-tools koruregfile-doc python3-koruregfile libkoruregfile-dev libkoruregfile0 >/tmp/dpkg.log 2>&1 ||
  { cat /tmp/dpkg.log; fail "the packages cannot be removed"; }
apt-get -qq autoremove -y --purge >/dev/null 2>&1
find / -xdev \( -path /src -o -path /var -o -path /tmp \) -prune -o -type f -print | sort >/tmp/after
left=$(comm -13 /tmp/before /tmp/after | grep -i koru || true)
[ -z "$left" ] || fail "left behind: $left"
ok "they are removed, with nothing left behind"
