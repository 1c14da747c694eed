#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need.
# Does nothing when they are all present. Usage: bootstrap.sh [extra packages...]
set -euo pipefail

packages=(
  cmake make g++ pkg-config
  libgoogle-glog-dev libevent-dev libssl-dev libjson-c-dev libsystemd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  valgrind
  iproute2 util-linux openssl curl
  dpkg-dev file lintian man-db systemd
  dbus libnotify-bin python3-dbus python3-gi
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

# The tests hide this directory behind a tmpfs, so it must exist to be hidden.
[ -d /usr/share/applications ] || $sudo mkdir -p /usr/share/applications

[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
