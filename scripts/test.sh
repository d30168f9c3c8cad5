#!/usr/bin/env bash
# The whole test run: installs what is missing, checks the formatting (and
# stops at once with the list of unformatted files), builds and runs every
# test (the fuzz targets' seed replays included), then the ASan+UBSan build's
# tests and a TSan run of the threaded tests. Under CI (CI=true) the tests
# that need a private PulseAudio server fail when it cannot start.
# Usage: scripts/test.sh [--quick]   (--quick: debug build only)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

echo "== format check"
scripts/format.sh --check

run_ctest() {
  local dir="$1"; shift
  ctest --test-dir "$dir" --output-on-failure --timeout 600 -j "$(nproc)" "$@"
}

start=$(date +%s)
echo "== debug build and tests"
scripts/build.sh debug
run_ctest build/debug

if [ "${1:-}" = "--quick" ]; then exit 0; fi

echo "== ASan+UBSan build and tests"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
scripts/build.sh asan
run_ctest build/asan -LE no_asan

echo "== TSan build and threaded tests"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp"
scripts/build.sh tsan --target sv_threaded_tests
run_ctest build/tsan -L threaded
echo "== all tests passed in $(( $(date +%s) - start )) s"
