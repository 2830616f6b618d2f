#!/usr/bin/env bash
# service.sh BUILD: the agent's unit as it is installed: right under its prefix, without a word from systemd-analyze,
# and exposed no more than 2.0 of 10.
set -euo pipefail
build=$1 prefix=$1/tests/package/service
command -v systemd-analyze >/dev/null || { echo "there is no systemd-analyze"; exit 77; }
rm -rf "$prefix"
for component in libraries agent; do
  cmake --install "$build" --prefix "$prefix" --component "$component" >/dev/null
done
unit=$prefix/lib/systemd/system/korud.service
export MANPATH=$prefix/share/man

fail() { echo "error: $*" >&2; exit 1; }
said=$(systemd-analyze verify "$unit" 2>&1) || true
[ -z "$said" ] || fail "systemd-analyze verify: $said"
systemd-analyze security --offline=yes --threshold=20 --no-pager "$unit" | tail -n 1
program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
config=$(sed -n 's/^ExecStart=.*--config \([^ ]*\).*/\1/p' "$unit")
"$program" --check --config "$config"
