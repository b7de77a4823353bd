#!/usr/bin/env bash
# Checks the Debian packages the build and the tests need; installs the missing ones when run as root.
set -euo pipefail
packages=(cmake g++ make pkg-config python3 clang-format googletest libgtest-dev libgmock-dev libbenchmark-dev
          libx11-dev libxi-dev libxtst-dev xvfb x11-utils binutils libuv1-dev clang libclang-rt-14-dev
          sway xwayland x11-xserver-utils libwayland-dev libwayland-bin
          wayland-protocols)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
line="apt-get install -y ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "zelbridge: missing system packages: ${missing[*]}" >&2
  echo "Install them as root with:" >&2
  echo "  apt-get update && $line" >&2
  exit 1
fi
echo "zelbridge: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}"
