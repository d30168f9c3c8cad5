#!/usr/bin/env bash
# A private Wayland desktop for tests and measurements: a headless sway
# showing one output of a solid colour, its own session bus, PipeWire,
# WirePlumber, the desktop portal and its wlroots backend, all as an
# unprivileged user (sway refuses to run as root) in a directory of their own.
#
#   wayland-desktop.sh DIR WIDTH HEIGHT COLOUR [OUTPUT [SHIM]]
#
# COLOUR is #RRGGBB. OUTPUT is the output the portal shares without asking
# (HEADLESS-1; a name no output has makes it answer as if the user had
# cancelled). SHIM is preloaded into the portal's wlroots backend
# (screencopy_shm_shim.cc says why). Prints nothing; writes DIR/ready (the
# bus address) once the screen-cast portal answers, DIR/failed (the reason)
# if it does not; SIGUSR1 restarts a killed compositor. The processes share this script's process
# group: end them all with kill -- -PGID. Their logs are DIR/*.log.
#
# The bus lets any local user connect (the service under test may run as
# root), and the portal hands PipeWire out as a descriptor, so no other
# process needs the user's sockets.
set -u
dir=$1 width=$2 height=$3 colour=$4 output=${5:-HEADLESS-1} shim=${6:-}
user=${SV_DESKTOP_USER:-nobody}
group=$(id -gn "$user")
fail() { echo "$*" > "$dir/failed"; exit 1; }
for tool in sway swaybg pipewire wireplumber dbus-daemon setpriv busctl \
  /usr/libexec/xdg-desktop-portal /usr/libexec/xdg-desktop-portal-wlr; do
  command -v "$tool" > /dev/null || fail "$tool is not installed (scripts/install-deps.sh)"
done

mkdir -p "$dir/run" "$dir/home" "$dir/config/sway" "$dir/config/xdg-desktop-portal-wlr"
chmod 755 "$dir"
chmod 700 "$dir/run"
cat > "$dir/config/sway/config" << EOC
output * bg $colour solid_color
output HEADLESS-1 resolution ${width}x${height} position 0 0
default_border none
# A desktop is never quite still (a clock, a cursor), and the compositor
# sends a screen cast nothing until something changes: a bar in the
# output's own colour, its text too, changes ten times a second.
bar {
  position top
  workspace_buttons no
  binding_mode_indicator no
  status_command while :; do date +%s%N; sleep 0.1; done
  colors {
    background $colour
    statusline $colour
    separator $colour
  }
}
EOC
cat > "$dir/config/xdg-desktop-portal-wlr/config" << EOC
[screencast]
chooser_type=none
output_name=$output
max_fps=60
EOC
cat > "$dir/bus.conf" << EOC
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$dir/run/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$dir/services</servicedir>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOC
# Only the permission store (where the portal keeps restore tokens) starts
# on demand: the portal and its backend are started below, in order, so that
# no early caller (PipeWire looks for the portal) starts a second, unlogged
# copy of either.
mkdir -p "$dir/services"
cp /usr/share/dbus-1/services/org.freedesktop.impl.portal.PermissionStore.service "$dir/services/"
chown -R "$user:$group" "$dir"
bus="unix:path=$dir/run/bus"
# As root, the desktop runs as $user (sway refuses root); otherwise as the
# caller. `portal_drop` lets the portal identify a caller of another user:
# it reads /proc/PID/root of every caller, which a root caller's entry only
# allows to a process with CAP_SYS_PTRACE.
drop=() portal_drop=()
if [ "$(id -u)" -eq 0 ]; then
  drop=(setpriv --reuid="$user" --regid="$group" --clear-groups)
  portal_drop=("${drop[@]}" --inh-caps=+sys_ptrace --ambient-caps=+sys_ptrace)
else
  user=$(id -un) group=$(id -gn)
fi
# Always backgrounded: the process replaces its subshell, so $! is its pid.
as_user() {
  exec "${drop[@]}" env -i HOME="$dir/home" XDG_RUNTIME_DIR="$dir/run" XDG_CONFIG_HOME="$dir/config" \
    PATH=/usr/bin:/bin DBUS_SESSION_BUS_ADDRESS="$bus" XDG_CURRENT_DESKTOP=sway \
    XDG_SESSION_TYPE=wayland WAYLAND_DISPLAY=wayland-1 "$@"
}
wait_for() {  # what, tries of 0.1 s, test...
  local what=$1 tries=$2
  shift 2
  for _ in $(seq "$tries"); do "$@" && return 0; sleep 0.1; done
  fail "$what did not start (logs in $dir)"
}

as_user dbus-daemon --config-file="$dir/bus.conf" --nofork --nopidfile > "$dir/dbus.log" 2>&1 &
wait_for "the session bus" 100 test -S "$dir/run/bus"
start_compositor() {
  # A killed compositor leaves its sockets behind.
  rm -f "$dir/run/wayland-1" "$dir"/run/sway-ipc.*
  as_user WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 \
    sway -c "$dir/config/sway/config" >> "$dir/sway.log" 2>&1 &
  echo $! > "$dir/sway.pid"
  wait_for sway 300 test -S "$dir/run/wayland-1"
}
has_name() { busctl --address="$bus" status "$1" > /dev/null 2>&1; }
# The portal's backend leaves with the compositor it served.
start_backend() {
  as_user ${shim:+LD_PRELOAD="$shim"} /usr/libexec/xdg-desktop-portal-wlr -l DEBUG >> "$dir/xdpw.log" 2>&1 &
  wait_for "xdg-desktop-portal-wlr" 300 has_name org.freedesktop.impl.portal.desktop.wlr
}
start_compositor
as_user pipewire > "$dir/pipewire.log" 2>&1 &
wait_for pipewire 300 test -S "$dir/run/pipewire-0"
as_user wireplumber > "$dir/wireplumber.log" 2>&1 &
# The backend first, so that it is the one the portal finds (and with its
# debug log), then the portal.
start_backend
drop=("${portal_drop[@]}")
as_user /usr/libexec/xdg-desktop-portal -v > "$dir/xdp.log" 2>&1 &
answers() {
  busctl --address="$bus" get-property org.freedesktop.portal.Desktop \
    /org/freedesktop/portal/desktop org.freedesktop.portal.ScreenCast version > /dev/null 2>&1
}
wait_for "xdg-desktop-portal" 300 has_name org.freedesktop.portal.Desktop
wait_for "the screen-cast portal" 300 answers
echo "$bus" > "$dir/ready"
# SIGUSR1 starts the compositor and the portal's backend again, as a
# session does after a compositor crash; DIR/restarted says when.
trap 'rm -f "$dir/restarted"; start_compositor; start_backend; touch "$dir/restarted"' USR1
until wait; do :; done
