#!/usr/bin/env bash
# Installs the extension SDK from a build tree into a temporary prefix and
# builds extensions against it: a tiny one with pkg-config (run by hand, the
# SDK refuses to serve it: no service started it) and the two examples (HLS
# upload, measuring processing) with find_package, whose bundles must come
# out complete.
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

for example in hls-upload-extension:hls-upload processing-extension:processing-measure; do
  dir="${example%%:*}" bundle="${example##*:}"
  cmake -S "$src/examples/$dir" -B "$work/$dir-build" \
    -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
  cmake --build "$work/$dir-build" >/dev/null
  [ -x "$work/$dir-build/$bundle/$dir" ] && [ -f "$work/$dir-build/$bundle/bundle.json" ] || {
    echo "the $dir example's bundle is incomplete"; exit 1; }
  status=0
  LD_LIBRARY_PATH="$libdir" "$work/$dir-build/$bundle/$dir" >/dev/null 2>&1 || status=$?
  [ "$status" -eq 2 ] || { echo "the $dir example ran without a service (status $status)"; exit 1; }
done

# The shipped extensions come with the SDK's component.
[ -x "$(find "$work/prefix" -path '*bundles/hls-upload/hls-upload-extension')" ] || {
  echo "the HLS extension is not installed"; exit 1; }
[ -x "$(find "$work/prefix" -path '*bundles/processing-measure/processing-extension')" ] || {
  echo "the processing extension is not installed"; exit 1; }

# Nothing but the public headers is installed.
extra="$(cd "$work/prefix/include" && find . -type f |
  grep -v -e '^./sorvel/upload_extension.h$' -e '^./sorvel/processing_extension.h$' || true)"
[ -z "$extra" ] || { echo "unexpected headers: $extra"; exit 1; }
echo "extension SDK install test passed"
