# Shared by the scripts of this folder, which source it first. Moves to the top of the tree.
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

say() { echo "== $*"; }
fail() { echo "error: $*" >&2; exit 1; }

# help_or_go "one line of usage" "$@": answers --help.
help_or_go() {
  local usage=$1
  shift
  case "${1:-}" in -h | --help) echo "usage: $usage"; exit 0 ;; esac
}

# quietly LOG COMMAND...: keeps the output in LOG and shows it only when the command fails.
quietly() {
  local log=$1 status=0
  shift
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 || status=$?
  [ "$status" = 0 ] || { cat "$log" >&2; echo "error: '$*' ended with status $status" >&2; }
  return "$status"
}

# Whoever installs needs to be root.
as_root=()
[ "$(id -u)" = 0 ] || as_root=(sudo)
# Nobody is there to be asked whether a file of the configuration stays.
apt() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Options::=--force-confold "$@"; }

# need LOG PACKAGE...: installs those that are missing. One at a time of those that run beside each other.
need() {
  local log=$1 package missing=()
  shift
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "installing ${missing[*]}"
  (
    flock 6
    quietly "$log" apt update && quietly "$log" apt install -y --no-install-recommends "${missing[@]}"
  ) 6<scripts/setup
}

# What takes long to make and does not depend on the tree.
kept=${KORU_FRESH:-/var/tmp/koru-fresh}

# Where this machine gets its own packages from; Debian's own address when it does not say.
mirror() {
  local found
  found=$(cat /etc/apt/sources.list.d/debian.sources /etc/apt/sources.list 2>/dev/null |
    grep -oE 'https?://[^ ]+/debian/?( |$)' | head -n 1 || true)
  echo "${found:-http://deb.debian.org/debian}"
}

# The release that this machine runs, as "bookworm".
release_name() { sed -n 's/^VERSION_CODENAME=//p' /etc/os-release; }

# unpacked FOLDER ARCHITECTURE PACKAGE...: a folder of $kept with these packages and what they depend
# on, of this machine's release, unpacked and not installed. Made anew when other packages are wanted.
unpacked() {
  local folder=$kept/$1 architecture=$2 wanted log=$top/build/logs/unpacked-$1.log
  shift 2
  wanted="$(release_name) $*"
  need build/logs/unpacked-apt.log mmdebstrap || return 1
  "${as_root[@]}" mkdir -p "$kept"
  (
    flock 9
    [ "$(cat "$folder.complete" 2>/dev/null)" != "$wanted" ] || exit 0
    say "unpacking packages of $architecture: $folder"
    "${as_root[@]}" rm -rf --one-file-system "$folder" "$folder.complete"
    quietly "$log" "${as_root[@]}" mmdebstrap --variant=extract --architectures="$architecture" \
      --include="$(IFS=,; echo "$*")" "$(release_name)" "$folder" "$(mirror)" || exit 1
    # The links are meant for a machine whose root this is.
    find "$folder" -type l -lname '/*' -printf '%p\t%l\n' | while IFS=$'\t' read -r link target; do
      "${as_root[@]}" ln -sfnr "$folder$target" "$link" || exit 1
    done || exit 1
    "${as_root[@]}" tee "$folder.complete" <<<"$wanted" >/dev/null
  ) 9<"$kept"
}

# build_preset PRESET: configures and builds.
build_preset() {
  local preset=$1
  say "building ($preset)"
  quietly "build/logs/$preset-configure.log" cmake --preset "$preset" &&
    quietly "build/logs/$preset-build.log" cmake --build --preset "$preset" -j "$(nproc)"
}
