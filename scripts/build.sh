#!/usr/bin/env bash
# Usage: scripts/build.sh [debug|release|asan|tsan|coverage|fuzz] [cmake --build args...]
# Configures build/<config> once and builds it. CI=true turns on -Werror.
set -euo pipefail
cd "$(dirname "$0")/.."

config="${1:-debug}"
shift || true
builddir="build/${config}"
werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
[ -n "${SV_WERROR:-}" ] && werror="${SV_WERROR}"

case "$config" in
  debug)   args=(-DCMAKE_BUILD_TYPE=Debug) ;;
  release) args=(-DCMAKE_BUILD_TYPE=Release) ;;
  asan)    args=(-DCMAKE_BUILD_TYPE=Debug "-DSV_SANITIZE=address;undefined" -DSV_BUILD_BENCH=OFF) ;;
  tsan)    args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DSV_SANITIZE=thread -DSV_BUILD_BENCH=OFF) ;;
  # Source-based coverage with clang (scripts/coverage.sh reads it).
  coverage) covflags="-fprofile-instr-generate -fcoverage-mapping"
           args=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
                 "-DCMAKE_C_FLAGS=$covflags" "-DCMAKE_CXX_FLAGS=$covflags"
                 "-DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate"
                 "-DCMAKE_SHARED_LINKER_FLAGS=-fprofile-instr-generate" -DSV_BUILD_BENCH=OFF) ;;
  # libFuzzer: every library is instrumented for coverage and checked with
  # ASan and UBSan, not only the fuzz entry points.
  fuzz)    fuzzflags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
           args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
                 "-DCMAKE_C_FLAGS=$fuzzflags" "-DCMAKE_CXX_FLAGS=$fuzzflags"
                 -DSV_BUILD_FUZZ=ON -DSV_BUILD_TESTS=OFF -DSV_BUILD_BENCH=OFF) ;;
  *) echo "unknown config: $config" >&2; exit 2 ;;
esac

export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/sorvel-ccache}"
export CCACHE_BASEDIR="$PWD"
# Debug builds would hash the checkout's directory: a fresh clone (as CI
# makes) would then miss every object another checkout compiled.
export CCACHE_NOHASHDIR=true
export CCACHE_MAXSIZE="${CCACHE_MAXSIZE:-5G}"

if [ ! -f "$builddir/build.ninja" ]; then
  cmake -S . -B "$builddir" -G Ninja "${args[@]}" -DSV_WERROR="$werror"
else
  cmake "$builddir" -DSV_WERROR="$werror" >/dev/null
fi
jobs="${SV_JOBS:-$(nproc)}"
cmake --build "$builddir" -j "$jobs" "$@"
