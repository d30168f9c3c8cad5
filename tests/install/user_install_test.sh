#!/usr/bin/env bash
# Installs a build tree into a scratch prefix as a user would and checks
# what the user gets: the files, `systemd-analyze verify` of the user units,
# both manual pages rendered by man with every option of --help in them, the
# bash completion, and the service started the way sorveld.socket starts it
# (systemd-socket-activate with the unit's sockets and names): the first
# connection starts it, `sorvel shell purgeable` answers, a recording with
# the installed tool finds the installed bundle, and SIGTERM ends the service
# with the status its unit counts as success.
# Usage: user_install_test.sh BUILD_DIR
set -euo pipefail
build="$1"
work="$(mktemp -d "${TMPDIR:-/tmp}/sv-user-install-XXXXXX")"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
# Waits up to $1 seconds for the command after it to succeed.
eventually() {
  local until=$(($(date +%s) + $1)); shift
  until "$@"; do
    [ "$(date +%s)" -lt "$until" ] || return 1
    sleep 0.1
  done
}

prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
export LC_ALL=C LANG=C LANGUAGE=

units="$prefix/lib/systemd/user"
for f in bin/sorveld bin/sorvel share/sorvel/framework/bundle.json \
  share/sorvel/framework/en.lproj/Localizable.strings \
  share/sorvel/bundles/sorvel-recorder/bundle.json share/sorvel/bundles/sorvel-recorder/sorvel \
  lib/systemd/user/sorveld.socket lib/systemd/user/sorveld.service \
  lib/systemd/user/sorvel-consent-agent.service share/man/man8/sorveld.8 share/man/man1/sorvel.1 \
  share/bash-completion/completions/sorvel include/sorvel/recorder_client.h; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
[ "$(readlink -f "$prefix/bin/sorvel")" = "$(readlink -f "$prefix/share/sorvel/bundles/sorvel-recorder/sorvel")" ] ||
  fail "bin/sorvel does not lead into its bundle"
grep -qx "ExecStart=$prefix/bin/sorveld --agent-wait 20" "$units/sorveld.service" || fail "ExecStart does not name the installed sorveld"
grep -qx "SuccessExitStatus=255" "$units/sorveld.service" || fail "the service's normal end (255) is not a success"

# The units as the user's service manager reads them.
if command -v systemd-analyze >/dev/null; then
  out="$(XDG_RUNTIME_DIR="$work" systemd-analyze --user --man=no verify \
    "$units/sorveld.socket" "$units/sorveld.service" "$units/sorvel-consent-agent.service" 2>&1)" ||
    fail "systemd-analyze verify: $out"
  [ -z "$out" ] || fail "systemd-analyze verify warns: $out"
fi

# Manual pages: rendered without complaint, with every option of --help.
render() { MANWIDTH=100 man --warnings -l "$1" 2>"$work/man-warnings" | col -b; }
options() { grep -oE -- '(^|[][ ,|(])--?[a-zA-Z][a-zA-Z-]*' | grep -oE -- '--?[a-zA-Z][a-zA-Z-]*' | sort -u; }
check_page() {  # page, then the help texts' options on standard input
  local page="$1" text missing=""
  text="$(render "$page")"
  [ ! -s "$work/man-warnings" ] || fail "man warns about $page: $(cat "$work/man-warnings")"
  [ "$(wc -l <<<"$text")" -gt 20 ] || fail "$page renders almost nothing"
  while read -r o; do grep -qF -- "$o" <<<"$text" || missing+=" $o"; done
  [ -z "$missing" ] || fail "$(basename "$page") lacks$missing"
}
"$prefix/bin/sorveld" --help | options | check_page "$prefix/share/man/man8/sorveld.8"
commands="$("$prefix/bin/sorvel" --help | awk '/^commands:/ { c = 1; next } c && /^  [a-z]/ { print $1 }')"
[ -n "$commands" ] || fail "sorvel --help lists no commands"
{
  "$prefix/bin/sorvel" --help
  for c in $commands; do "$prefix/bin/sorvel" "$c" --help; done
} | options | check_page "$prefix/share/man/man1/sorvel.1"
sorvel_page="$(render "$prefix/share/man/man1/sorvel.1")"
for c in $commands; do grep -q "sorvel $c" <<<"$sorvel_page" || fail "sorvel.1 lacks the command $c"; done
for section in "EXIT STATUS" ENVIRONMENT FILES; do
  grep -q "^$section" <<<"$sorvel_page" || fail "sorvel.1 lacks $section"
  render "$prefix/share/man/man8/sorveld.8" | grep -q "^$section" || fail "sorveld.8 lacks $section"
done

# Completion: the commands, and a command's options, from the installed tool.
completion="$prefix/share/bash-completion/completions/sorvel"
if [ -r /usr/share/bash-completion/bash_completion ]; then
  complete_words() {
    bash -c 'source /usr/share/bash-completion/bash_completion; source "$1"; shift
      COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
      _sorvel; printf "%s\n" "${COMPREPLY[@]}"' _ "$completion" "$@"
  }
  complete_words "$prefix/bin/sorvel" "" | grep -qx record || fail "completion lacks the command record"
  complete_words "$prefix/bin/sorvel" record --d | grep -qx -- --duration || fail "completion lacks record --duration"
  complete_words "$prefix/bin/sorvel" shell pur | grep -qx purgeable || fail "completion lacks shell purgeable"
fi

# The service as sorveld.socket starts it: the unit's sockets in its runtime
# directory (%t), each named after the unit as systemd names them.
run="$work/run" home="$work/home"
mkdir -p "$run" "$home"
chmod 700 "$run"
mapfile -t sockets < <(sed -n 's/^ListenSequentialPacket=%t\//'"${run//\//\\/}"'\//p' "$units/sorveld.socket")
[ "${#sockets[@]}" -eq 2 ] || fail "sorveld.socket does not listen on both service sockets"
listen=()
for s in "${sockets[@]}"; do listen+=(-l "$s"); done
exec_start="$(sed -n 's/^ExecStart=//p' "$units/sorveld.service")"
env -i PATH="$PATH" HOME="$home" XDG_RUNTIME_DIR="$run" LC_ALL=C \
  SORVEL_SCREEN_BACKEND=synthetic SORVEL_AUDIO_BACKEND=synthetic \
  systemd-socket-activate --seqpacket "${listen[@]}" --fdname=sorveld.socket:sorveld.socket \
  $exec_start >"$work/daemon.log" 2>&1 &
activator=$!
pids+=("$activator")
eventually 10 grep -q "Listening on ${sockets[1]}" "$work/daemon.log" || fail "no sockets: $(cat "$work/daemon.log")"
grep -q "sorveld Starting" "$work/daemon.log" && fail "the service started before a connection"
export XDG_RUNTIME_DIR="$run"
unset SORVEL_RUNTIME_DIR
bytes="$(HOME="$home" "$prefix/bin/sorvel" shell purgeable)" || fail "sorvel shell purgeable: $(cat "$work/daemon.log")"
[[ "$bytes" =~ ^[0-9]+$ ]] || fail "sorvel shell purgeable printed '$bytes'"
grep -q "sorveld Starting" "$work/daemon.log" || fail "the connection did not start the service"

# A recording through the installed tool: the service knows it by its
# installed bundle, with no bundle path given.
HOME="$home" "$prefix/bin/sorvel" consent-agent --answer accept >"$work/agent.log" 2>&1 &
pids+=($!)
eventually 10 grep -q "registered" "$work/agent.log" || fail "the consent agent did not register"
HOME="$home" "$prefix/bin/sorvel" record -o "$work/x.mp4" --duration 1 </dev/null >"$work/record.log" 2>&1 ||
  fail "sorvel record: $(cat "$work/record.log") $(cat "$work/daemon.log")"
[ -s "$work/x.mp4" ] || fail "no movie"

kill -TERM "$activator"
status=0
wait "$activator" || status=$?
[ "$status" -eq 255 ] || fail "the service ended with $status after SIGTERM: $(cat "$work/daemon.log")"
echo "user install test passed"
