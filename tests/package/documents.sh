#!/usr/bin/env bash
# documents.sh SOURCE BUILD WORK: types in what the documents show, with what gets installed.
set -euo pipefail
# Where there is no make, another one builds.
command -v make >/dev/null || export CMAKE_GENERATOR=Ninja
source=$1 build=$2 work=$3
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >"$work.log"
export PATH=$work/prefix/bin:$PATH CMAKE_PREFIX_PATH=$work/prefix
"$source/scripts/typed" "$source/README.md" "$source/docs/Guide.md"
