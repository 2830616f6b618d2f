#!/usr/bin/env bash
# documents.sh SOURCE BUILD WORK: types in what the documents show, with what gets installed.
set -euo pipefail
# Where there is no make, another one builds.
command -v make >/dev/null || export CMAKE_GENERATOR=Ninja
source=$1 build=$2 work=$3
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >"$work.log"
export PATH=$work/prefix/bin:/usr/sbin:$PATH CMAKE_PREFIX_PATH=$work/prefix
documents=("$source/README.md" "$source/docs/Guide.md")
if command -v i2ctransfer >/dev/null; then
  documents+=("$source/docs/Simulator.md")
else
  echo "docs/Simulator.md is left out: there are no i2c-tools"
fi
"$source/scripts/typed" "${documents[@]}"
