#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs one.
# Usage: scripts/fuzz.sh <target> [seconds]   e.g. scripts/fuzz.sh cbor_fuzz 60
set -euo pipefail
cd "$(dirname "$0")/.."
target="${1:?usage: scripts/fuzz.sh <target> [seconds]}"
seconds="${2:-60}"
scripts/build.sh fuzz --target "$target"
corpus="fuzz/corpus-$target"
mkdir -p "$corpus"
exec "build/fuzz/fuzz/$target" -max_total_time="$seconds" -max_len=65536 "$corpus"
