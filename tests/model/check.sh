#!/usr/bin/env bash
# Checks wakeup.pml with spin: it must hold, and must not hold without the reader's second look.
# Ends with 77, which ctest reports as skipped, when spin is not installed.
set -euo pipefail

model=$(realpath "$(dirname "$0")")/wakeup.pml
command -v spin >/dev/null || { echo "spin is not installed: scripts/setup installs it"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The verifier's report on the model with the given options.
verify() {
  spin -a "$@" "$model" >spin.log || { cat spin.log; return 1; }
  "${CC:-cc}" -O1 -DSAFETY -o pan pan.c
  ./pan
}

verify | tee report
grep -q 'errors: 0' report || { echo "the model does not hold"; exit 1; }
if grep -q 'max search depth too small' report; then exit 1; fi
verify -DNO_RECHECK >report
grep -q 'errors: 1' report || { echo "the model holds without the second look too: it checks nothing"; exit 1; }
