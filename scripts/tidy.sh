#!/usr/bin/env bash
# Runs clang-tidy with the repository's .clang-tidy over the given files (or all).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh debug >/dev/null
files=("$@")
[ ${#files[@]} -eq 0 ] && mapfile -t files < <(git ls-files '*.cc')
clang-tidy -p build/debug "${files[@]}"
