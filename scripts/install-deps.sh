#!/usr/bin/env bash
# Installs the Debian packages that building, testing and running need.
# Idempotent: only packages that are missing are installed; runs apt-get as
# root, through sudo otherwise.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config ccache clang clang-format
  libclang-rt-14-dev llvm
  nlohmann-json3-dev libspdlog-dev libfmt-dev libasio-dev libsystemd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  libx264-dev libyuv-dev ffmpeg libcurl4-openssl-dev
  libpulse-dev pulseaudio pulseaudio-utils systemd
  libx11-dev libxext-dev libxfixes-dev libxrandr-dev
  libxcb1-dev libxcb-shm0-dev libxcb-composite0-dev libxcb-randr0-dev libxcb-xfixes0-dev libxcb-res0-dev xvfb openbox x11-xserver-utils
  sway swaybg xdg-desktop-portal xdg-desktop-portal-wlr pipewire wireplumber libpipewire-0.3-dev libwayland-dev
  dbus util-linux
  python3 python3-cbor2
  man-db groff-base bsdextrautils bash-completion dpkg-dev file
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
