#!/usr/bin/env bash
# readme.sh SOURCE WORK: types in what README.md says about using the library, as it is printed: the commands from the
# top of the tree, the file that they need in front of them.
set -euo pipefail
# Where there is no make, another one builds.
command -v make >/dev/null || export CMAKE_GENERATOR=Ninja
source=$1 work=$2
rm -rf "$work"
mkdir -p "$work/home"

# recipe LANGUAGE: the blocks of that language in the section.
recipe() {
  awk -v language="$1" '/^## /{ within = /^## Using it/ } !within { next }
    block && /^```$/ { block = 0 } block { print } $0 == "```" language { block = 1 }' "$source/README.md"
}
recipe cmake >"$work/CMakeLists.txt"
recipe sh >"$work/commands"
[ -s "$work/CMakeLists.txt" ] && [ -s "$work/commands" ] || { echo "README.md has no recipe" >&2; exit 1; }

# In a tree of its own, which sees the build and the examples of this one.
mkdir -p "$work/tree/my-agent"
for part in build examples; do ln -s "$source/$part" "$work/tree/$part"; done
cp "$work/CMakeLists.txt" "$work/tree/my-agent/"
cd "$work/tree"
HOME=$work/home bash -euo pipefail "$work/commands" | tee "$work/output"
[ "$(grep -c 'CONFIGURATION holds 0x399f' "$work/output")" = 2 ] || { echo "it did not run twice" >&2; exit 1; }
