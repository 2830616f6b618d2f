#!/usr/bin/env bash
# headers.sh BUILD COMPILER: installs BUILD and compiles every installed header alone, with nothing but what was
# installed, and all warnings taken for errors.
set -euo pipefail
build=$1 compiler=$2
work=$build/tests/package/headers
rm -rf "$work"
cmake --install "$build" --prefix "$work" --component development >/dev/null

fail() { echo "error: $*" >&2; exit 1; }
[ "$(ls "$work/include")" = koruregfile ] || fail "headers lie beside include/koruregfile"
[ -z "$(find "$work/include" -path '*/internal/*')" ] || fail "what is internal was installed"

PKG_CONFIG_PATH=$(dirname "$(find "$work" -name koruboard.pc)")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags koruboard)
find "$work/include" -name '*.h' -printf '%P\0' | (cd "$work/include" && xargs -0 -r -P "$(nproc)" -n 1 \
  "$compiler" "${flags[@]}" -fsyntax-only -Wall -Wextra -Werror -x c++ /dev/null -include) ||
  fail "a header needs what is not installed"
