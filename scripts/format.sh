#!/usr/bin/env bash
# Formats every C++ source of the project in place with the repository's
# .clang-format. With --check, changes nothing: lists the files that are not
# formatted and fails when there are any.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = "--check" ]; then
  unformatted=$(git ls-files -co --exclude-standard '*.cc' '*.h' | xargs -r clang-format --dry-run -Werror 2>&1 |
                  grep -oE '^[^: ]+:[0-9]+:[0-9]+: (error|warning)' | cut -d: -f1 | sort -u || true)
  if [ -n "$unformatted" ]; then
    echo "format: these files are not formatted (run scripts/format.sh):" >&2
    echo "$unformatted" | sed 's/^/  /' >&2
    exit 1
  fi
  exit 0
fi
git ls-files -co --exclude-standard '*.cc' '*.h' | xargs -r clang-format -i
