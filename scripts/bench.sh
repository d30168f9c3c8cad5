#!/usr/bin/env bash
# Builds the release configuration and runs every benchmark; each prints
# "name value unit" lines. Usage: scripts/bench.sh [benchmark-name ...]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >/dev/null
scripts/build.sh release >/dev/null
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  mapfile -t names < <(find build/release/bench -maxdepth 2 -type f -executable -name '*_bench' -printf '%f\n' | sort)
fi
for n in "${names[@]}"; do
  exe=$(find build/release/bench -type f -executable -name "$n" | head -1)
  echo "# $n"
  "$exe"
done
