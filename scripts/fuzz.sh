#!/usr/bin/env bash
# Builds the libFuzzer targets (clang; every library instrumented and checked
# with ASan and UBSan, in build/fuzz) and runs one target, or every target one
# after the other, for the given seconds each.
#
# Usage: scripts/fuzz.sh <target|all> [seconds] [libFuzzer options...]
#   scripts/fuzz.sh all 60
#   scripts/fuzz.sh bundle_manifest_fuzz 300 -jobs=2 -workers=2
#
# Each target starts from its seeds (fuzz/seeds/<target>/, committed) and its
# working corpus (fuzz/corpus-<target>/, not committed), where new inputs go;
# crashes go to build/fuzz/artifacts/<target>/ and the full output to
# build/fuzz/logs/<target>.log. Prints one line per target with its executions
# and fails when any target found a crash. A crash input that is fixed belongs
# in fuzz/seeds/<target>/ as a regression seed: the replay tests run it.
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: scripts/fuzz.sh <target|all> [seconds] [libFuzzer options...]"
target="${1:?$usage}"
shift
seconds=60
if [ $# -gt 0 ]; then
  seconds="$1"
  shift
fi
case "$seconds" in
  '' | *[!0-9]*) echo "$usage" >&2; exit 2 ;;
esac

if [ "$target" = all ]; then
  scripts/build.sh fuzz --target sv_fuzzers >/dev/null
  mapfile -t targets < <(find build/fuzz/fuzz -maxdepth 1 -type f -executable -name '*_fuzz' \
                           -printf '%f\n' | sort)
else
  scripts/build.sh fuzz --target "$target" >/dev/null
  targets=("$target")
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
mkdir -p build/fuzz/logs
status=0
for t in "${targets[@]}"; do
  corpus="fuzz/corpus-$t"
  artifacts="build/fuzz/artifacts/$t/"
  log="build/fuzz/logs/$t.log"
  mkdir -p "$corpus" "$artifacts"
  dirs=("$corpus")
  [ -d "fuzz/seeds/$t" ] && dirs+=("fuzz/seeds/$t")
  if "build/fuzz/fuzz/$t" -max_total_time="$seconds" -max_len=65536 \
       -artifact_prefix="$artifacts" "$@" "${dirs[@]}" >"$log" 2>&1; then
    result=ok
  else
    result="FAILED (see $log and $artifacts)"
    status=1
  fi
  done_line=$(grep -E '^Done [0-9]+ runs in [0-9]+ second' "$log" | tail -1 || true)
  runs=$(sed -E 's/^Done ([0-9]+) runs in ([0-9]+) second.*/\1/' <<<"$done_line")
  secs=$(sed -E 's/^Done ([0-9]+) runs in ([0-9]+) second.*/\2/' <<<"$done_line")
  cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -1 || true)
  if [ -n "$done_line" ] && [ "${secs:-0}" -gt 0 ]; then
    echo "$t: $runs runs in $secs s ($((runs / secs)) exec/s, $cov, corpus $(ls "$corpus" | wc -l) files): $result"
  else
    echo "$t: $result"
  fi
done
exit $status
