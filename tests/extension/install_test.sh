#!/usr/bin/env bash
# Installs the extension SDK from a build tree into a temporary prefix and
# builds extensions against it: a tiny one with pkg-config (run by hand, the
# SDK refuses to serve it: no service started it) and the HLS example with
# find_package, whose bundle must come out complete.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR CXX_COMPILER
set -euo pipefail
build="$1" src="$2" cxx="$3"
work="$(mktemp -d "${TMPDIR:-/tmp}/sv-sdk-install-XXXXXX")"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" --component extension >/dev/null
pc="$(find "$work/prefix" -name sorvel-extension.pc)"
[ -n "$pc" ] || { echo "no sorvel-extension.pc installed"; exit 1; }
libdir="$(dirname "$(dirname "$pc")")"

export PKG_CONFIG_PATH="$(dirname "$pc")"
"$cxx" -std=c++20 "$src/tests/extension/install_extension/main.cc" \
  $(pkg-config --cflags --libs sorvel-extension) -o "$work/extension-pkgconfig"
out="$(LD_LIBRARY_PATH="$libdir" "$work/extension-pkgconfig" 2>&1)" || {
  echo "pkg-config extension failed: $out"; exit 1; }
echo "pkg-config: $out"

cmake -S "$src/examples/hls-upload-extension" -B "$work/hls-build" \
  -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/hls-build" >/dev/null
[ -x "$work/hls-build/hls-upload/hls-upload-extension" ] && [ -f "$work/hls-build/hls-upload/bundle.json" ] || {
  echo "the HLS example's bundle is incomplete"; exit 1; }
status=0
LD_LIBRARY_PATH="$libdir" "$work/hls-build/hls-upload/hls-upload-extension" >/dev/null 2>&1 || status=$?
[ "$status" -eq 2 ] || { echo "the HLS example ran without a service (status $status)"; exit 1; }

# The shipped HLS extension comes with the SDK's component.
[ -x "$(find "$work/prefix" -path '*bundles/hls-upload/hls-upload-extension')" ] || {
  echo "the HLS extension is not installed"; exit 1; }

# Nothing but the public header is installed.
extra="$(cd "$work/prefix/include" && find . -type f | grep -v '^./sorvel/upload_extension.h$' || true)"
[ -z "$extra" ] || { echo "unexpected headers: $extra"; exit 1; }
echo "extension SDK install test passed"
