#!/usr/bin/env bash
# Installs the client library from a build tree into a temporary prefix and
# builds the tiny application in install_app/ against it twice, with
# pkg-config and with find_package; each build runs with no service and must
# print the library's "not running" error.
# Usage: install_test.sh BUILD_DIR INSTALL_APP_DIR CXX_COMPILER
set -euo pipefail
build="$1" app="$2" cxx="$3"
work="$(mktemp -d "${TMPDIR:-/tmp}/sv-install-XXXXXX")"
trap 'rm -rf "$work"' EXIT
export SORVEL_RUNTIME_DIR="$work/run" LANGUAGE= LC_ALL=C LANG=C
mkdir -p "$SORVEL_RUNTIME_DIR"

cmake --install "$build" --prefix "$work/prefix" --component client >/dev/null
pc="$(find "$work/prefix" -name sorvel-client.pc)"
[ -n "$pc" ] || { echo "no sorvel-client.pc installed"; exit 1; }
libdir="$(dirname "$(dirname "$pc")")"

check() {  # runs the application built by $1 and checks what it prints
  local out status=0
  out="$(LD_LIBRARY_PATH="$libdir" "$2" 2>&1)" || status=$?
  echo "$1: $out"
  if [ "$status" -ne 0 ] || [[ "$out" != *"The screen recording service is not running. (org.sorvel.SVRecorderClientErrorDomain 1)"* ]]; then
    echo "$1: unexpected answer (exit $status)"
    exit 1
  fi
}

# pkg-config: the flags it gives are all an application needs.
export PKG_CONFIG_PATH="$(dirname "$pc")"
"$cxx" -std=c++20 "$app/main.cc" $(pkg-config --cflags --libs sorvel-client) -o "$work/app-pkgconfig"
check pkg-config "$work/app-pkgconfig"

# CMake package.
cmake -S "$app" -B "$work/app-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/app-build" >/dev/null
check find_package "$work/app-build/install_app"

# Nothing but the public headers is installed.
extra="$(cd "$work/prefix/include" && find . -type f | grep -v '^./sorvel/' || true)"
[ -z "$extra" ] || { echo "unexpected headers: $extra"; exit 1; }
echo "install test passed"
