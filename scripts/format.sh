#!/usr/bin/env bash
# Formats every C++ source of the project in place (or checks with --check).
set -euo pipefail
cd "$(dirname "$0")/.."
mode=(-i)
[ "${1:-}" = "--check" ] && mode=(--dry-run -Werror)
git ls-files '*.cc' '*.h' | xargs -r clang-format "${mode[@]}"
