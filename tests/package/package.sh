#!/usr/bin/env bash
# package.sh BUILD COMPILER SANITIZERS: installs BUILD and uses it as somebody else would.
set -euo pipefail
build=$1 compiler=$2 sanitizers=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$build/tests/package/work
prefix=$work/prefix

if [ -n "$sanitizers" ]; then
  echo "a program built without sanitizers cannot load libraries built with them"
  exit 77
fi

fail() { echo "error: $*" >&2; exit 1; }

expect_output() {
  local wanted=$'left\nright' output
  output=$("$@")
  [ "$output" = "$wanted" ] || fail "'$*' printed '$output'"
}

# What the library offers for linking, one demangled name a line.
exported() { nm -DC --defined-only "$1" | cut -d ' ' -f 3-; }

# Installed under another name first, then moved: nothing may depend on where it was installed.
rm -rf "$work"
cmake --install "$build" --prefix "$work/elsewhere"
mv "$work/elsewhere" "$prefix"
libraries=$(dirname "$(find "$prefix" -name libKoruRegFile.so)")

# A program finds the libraries that were installed with it.
"$prefix/bin/korureg" --version

# So does a program on a simulated board, the library that it needs.
if [ -e "$prefix/bin/korusim" ]; then
  board=$prefix/share/doc/koruregfile/examples/simulator
  simulated=$("$prefix/bin/korusim" --state "$work/simulated" "$board/board.toml" -- \
    "$prefix/bin/korureg" --map "$board/power.csv" --i2c /dev/i2c-1:0x40,word --json read VOLTAGE)
  grep -q '"value": 3300' <<<"$simulated" || fail "korusim printed '$simulated'"
  "$prefix/bin/korud" --check --config "$board/korud.toml"
fi

# Found by CMake.
cmake -S "$here/consumer" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$compiler"
cmake --build "$work/consumer"
expect_output "$work/consumer/consumer"

# The examples build against what was installed, too.
for example in quickstart embedding; do
  cmake -S "$here/../../examples/$example" -B "$work/$example" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler"
  cmake --build "$work/$example"
done
# The smallest agent writes what its file says and what it is told to; the second time, only what
# the first run has not left behind.
export KORU_STATE_DIR=$work/state
embedding() { "$work/embedding/embedding" "$here/../../examples/maps/ina219.csv" "$@"; }
[ "$(embedding)" = "CONFIGURATION <- 0x800" ] || fail "embedding did not write its register"
[ "$(embedding)" = "" ] || fail "embedding wrote what was there"
[ "$(embedding 2)" = $'CONFIGURATION <- 0x1000' ] || fail "embedding did not write its field"
"$prefix/bin/korud" --check --config "$here/../../examples/board.toml"

# Found by pkg-config.
export PKG_CONFIG_PATH=$libraries/pkgconfig
read -ra flags < <(pkg-config --cflags --libs koruregfile)
"$compiler" "$here/consumer/consumer.cpp" "${flags[@]}" -o "$work/by-pkg-config"
LD_LIBRARY_PATH=$libraries expect_output "$work/by-pkg-config"

# A program that uses the board library finds what it needs.
read -ra flags < <(pkg-config --cflags --libs koruboard)
"$compiler" "$here/consumer/board.cpp" "${flags[@]}" -o "$work/board"
[ "$(LD_LIBRARY_PATH=$libraries "$work/board")" = "mock, memory, i2c, relay, pci, spi, replay" ] ||
  fail "a program on libKoruBoard does not work"

for name in libKoruPlatform libKoruRegFile libKoruBoard; do
  library=$libraries/$name.so
  readelf -d "$library" | grep "SONAME.*\[$name\.so\.[0-9]*\]" || fail "$name has no SONAME"
  # Headers work without what the libraries keep to themselves, and their names stay inside, too.
  ! exported "$library" | grep -E '\b(spdlog|nlohmann|toml|CLI)::' ||
    fail "$name exports names that belong to others"
done
exported "$libraries/libKoruRegFile.so" | grep '^KoruRegFile::Utils::tokenize(' ||
  fail "libKoruRegFile does not export its own functions"
