#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when run as root and something is missing.
set -u
pkgs="cmake g++ make googletest libgtest-dev libgmock-dev libbenchmark-dev gcc-arm-none-eabi libnewlib-arm-none-eabi
      libstdc++-arm-none-eabi-dev dosfstools mtools lrzsz libunicorn-dev pkg-config lm4flash
      clang-14 libclang-rt-14-dev python3-numpy python3-matplotlib python3-netcdf4 python3-xarray netcdf-bin"
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "missing packages:$missing (run as root to install them)" >&2
  exit 0
fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq || true
apt-get install -y -qq $missing
