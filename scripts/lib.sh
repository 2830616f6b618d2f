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

# build_preset PRESET: configures and builds.
build_preset() {
  local preset=$1
  say "building ($preset)"
  quietly "build/logs/$preset-configure.log" cmake --preset "$preset" &&
    quietly "build/logs/$preset-build.log" cmake --build --preset "$preset" -j "$(nproc)"
}
