#!/usr/bin/env bash
# subproject.sh SOURCE WORK COMPILER: the libraries as a part of somebody else's project, below a path with blanks:
# what that project asks for is built, what it does not ask for is not.
set -euo pipefail
source=$1 work="$2/a project of somebody's" compiler=$3
here=$(cd "$(dirname "$0")" && pwd)
fail() { echo "error: $*" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$work/koru library"
for part in CMakeLists.txt cmake platform KoruRegFile board agent tools simulator man examples README.md docs; do
  cp -r "$source/$part" "$work/koru library/"
done
cp "$here/consumer/consumer.cpp" "$work/"
cat >"$work/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(Consumer LANGUAGES CXX)
add_subdirectory("koru library" koru)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE KoruRegFile::KoruRegFile)
install(TARGETS consumer)
EOF
configure() {
  cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS_DEBUG=-O0 "$@"
}
targets() { ninja -C "$work/build" -t targets all | grep -cE "^koru/.*/$1\.cpp\.o:" || true; }

configure
cmake --build "$work/build"
[ "$("$work/build/consumer")" = $'left\nright' ] || fail "the program printed something else"
[ "$(targets '(BoardKeeper|main|.*Test)')" = 0 ] || fail "tools or tests were built unasked"
cmake --install "$work/build" --prefix "$work/prefix"
[ "$(find "$work/prefix" -type f -printf '%P\n')" = bin/consumer ] || fail "more than the program was installed"

# The tools without the agent, and with it.
configure -DKORU_TOOLS=ON -DKORU_AGENT=OFF
[ "$(targets BoardKeeper) $(targets 'korud.*main')" = "1 0" ] || fail "the agent would be built unasked"
configure -DKORU_AGENT=ON -DKORU_INSTALL=ON
[ "$(targets 'korud.*main')" = 1 ] || fail "the agent would not be built"
