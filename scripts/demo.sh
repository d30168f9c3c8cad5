#!/usr/bin/env bash
# Records five seconds through the service and shows the movie: installs the
# Debian packages the build needs, builds the release configuration, starts a
# private daemon on the synthetic platform (screen and audio need no
# hardware) with an auto-accepting consent agent, runs
#   sorvel record -o <dir>/demo.mp4 --duration 5 --mic
# prints the movie's path and its inspection, and stops what it started on
# every way out (also Ctrl-C). The movie and the logs stay in <dir>.
# With --broadcast it broadcasts instead, through the shipped HLS extension:
#   sorvel record --broadcast org.sorvel.hls.upload --user-info '{"directory": "<dir>/live"}'
# printing the service information as it arrives, then the live stream's
# inspection (<dir>/live/index.m3u8 plays with ffplay). With --processing it
# broadcasts every frame and audio buffer live to the shipped processing
# extension, which prints its measurements and writes <dir>/thumbs/thumbnail.png.
# Usage: scripts/demo.sh [--broadcast | --processing] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
broadcast=false processing=false
if [ "${1:-}" = "--broadcast" ]; then broadcast=true; shift; fi
if [ "${1:-}" = "--processing" ]; then processing=true; shift; fi
seconds="${1:-5}"

scripts/install-deps.sh
scripts/build.sh release --target sorveld sorvel hls-upload-extension processing-extension
build="$PWD/build/release"

work="$(mktemp -d "${TMPDIR:-/tmp}/sorvel-demo-XXXXXX")"
mkdir -p "$work/run" "$work/home"
pids=()
cleanup() {
  local status=$?
  trap - EXIT INT TERM
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work/run" "$work/home"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Both the daemon and the tools look here; the daemon learns the recorder's
# bundle from the build tree.
export SORVEL_RUNTIME_DIR="$work/run"
export SORVEL_BUNDLE_PATH="$build/bundles"

"$build/daemon/sorveld" --runtime-dir "$work/run" --home "$work/home" \
  --screen-backend synthetic --audio-backend synthetic \
  --trusted-bundle-dir "$build/bundles" >"$work/sorveld.log" 2>&1 &
pids+=($!)
"$build/client/sorvel" consent-agent --answer accept >"$work/consent-agent.log" 2>&1 &
pids+=($!)
# The recording asks the user first: wait until the agent can answer.
for _ in $(seq 200); do
  grep -q "registered with the service" "$work/consent-agent.log" && break
  kill -0 "${pids[0]}" 2>/dev/null || { echo "sorveld ended; see $work/sorveld.log" >&2; exit 1; }
  sleep 0.05
done
grep -q "registered with the service" "$work/consent-agent.log" ||
  { echo "the consent agent did not register; see $work/consent-agent.log" >&2; exit 1; }

if $processing; then
  mkdir -p "$work/thumbs"
  echo "== broadcasting $seconds seconds to the processing extension (its figures:)"
  "$build/client/sorvel" record --broadcast org.sorvel.measure.processing --mic \
    --duration "$seconds" --user-info "{\"directory\": \"$work/thumbs\"}"
  echo
  echo "== the latest thumbnail: $work/thumbs/thumbnail.png"
  exit 0
fi

if $broadcast; then
  mkdir -p "$work/live"
  echo "== broadcasting $seconds seconds in 2-second fragments to $work/live (service information:)"
  "$build/client/sorvel" record --broadcast org.sorvel.hls.upload --mic --duration "$seconds" \
    --clip-duration 2 --user-info "{\"directory\": \"$work/live\"}"
  echo
  echo "== the live stream: $work/live/index.m3u8"
  "$build/client/sorvel" inspect "$work/live/index.m3u8"
  exit 0
fi

echo "== recording $seconds seconds (synthetic screen, application audio and microphone)"
# Its own summary of the movie is what `sorvel inspect` prints below.
"$build/client/sorvel" record -o "$work/demo.mp4" --duration "$seconds" --mic >/dev/null
echo
echo "== the movie: $work/demo.mp4"
"$build/client/sorvel" inspect "$work/demo.mp4"
