#!/usr/bin/env bash
# Line and branch coverage of the product code (everything but tests/,
# bench/, fuzz/ and examples/) by the whole test suite, measured with clang's
# source-based coverage. Every process a test starts (the daemon, sorvel,
# test applications) writes its own profile, so code that runs only inside
# a private daemon counts too.
# Usage: scripts/coverage.sh [--html DIR]
# Prints the per-directory table and a last line
#   coverage lines <percent> branches <percent>
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
scripts/build.sh coverage
dir="$PWD/build/coverage"
profiles="$dir/profiles"
rm -rf "$profiles"
mkdir -p "$profiles"

# Failing tests still leave their profiles; their failure is reported.
status=0
LLVM_PROFILE_FILE="$profiles/%p-%m.profraw" \
  ctest --test-dir "$dir" --timeout 600 -j "$(nproc)" -LE no_coverage || status=$?
llvm-profdata merge -sparse -o "$dir/all.profdata" "$profiles"/*.profraw

# Every executable and shared library of the build that carries coverage
# mapping: the first is the main object, the rest follow -object.
mapfile -t objects < <(find "$dir" -type f \( -perm -u+x -o -name '*.so*' \) \
  ! -path '*/CMakeFiles/*' ! -name '*.sh' ! -name '*.py' | sort)
args=()
for o in "${objects[@]}"; do
  if [ ${#args[@]} -eq 0 ]; then args+=("$o"); else args+=(-object "$o"); fi
done
ignore='(^|/)(tests|bench|fuzz|examples)/|^/usr/'
llvm-cov report -instr-profile="$dir/all.profdata" -ignore-filename-regex="$ignore" \
  "${args[@]}" > "$dir/report.txt" 2>/dev/null
# One row per top-level directory, then the total.
awk -v root="$PWD/" '
  /^Filename/ || /^-+$/ { next }
  NF >= 13 {
    f = $1; sub(root, "", f)
    # Paths relative to the common prefix when generated sources widen it.
    while (substr(f, 1, 3) == "../") f = substr(f, 4)
    split(f, p, "/"); d = (p[2] == "" ? "." : p[1])
    if ($1 == "TOTAL") d = "TOTAL"
    # columns: regions missed cover functions missed cover lines missed cover branches missed cover
    L[d] += $8; LM[d] += $9; B[d] += $11; BM[d] += $12
  }
  END {
    printf "%-12s %10s %8s %10s %8s\n", "directory", "lines", "cover", "branches", "cover"
    for (d in L) if (d != "TOTAL")
      printf "%-12s %10d %7.1f%% %10d %7.1f%%\n", d, L[d], 100 * (L[d] - LM[d]) / L[d], B[d],
        (B[d] ? 100 * (B[d] - BM[d]) / B[d] : 0)
    printf "coverage lines %.1f branches %.1f\n", 100 * (L["TOTAL"] - LM["TOTAL"]) / L["TOTAL"],
      100 * (B["TOTAL"] - BM["TOTAL"]) / B["TOTAL"]
  }' "$dir/report.txt"

if [ "${1:-}" = "--html" ] && [ -n "${2:-}" ]; then
  llvm-cov show -format=html -output-dir="$2" -instr-profile="$dir/all.profdata" \
    -ignore-filename-regex="$ignore" "${args[@]}" >/dev/null 2>&1
  echo "html report in $2"
fi
exit "$status"
