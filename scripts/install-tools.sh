#!/usr/bin/env bash
# Installs hxc3-data: the Debian packages it needs (when run as root and something is missing), then
# a link to tools/hxc3-data in PREFIX/bin (default /usr/local as root, ~/.local otherwise).
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
pkgs="python3 python3-numpy python3-matplotlib python3-netcdf4 netcdf-bin"
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "missing packages:$missing (run as root to install them, or: sudo apt-get install$missing)" >&2
  else
    echo "installing:$missing"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
  fi
fi
if [ "$(id -u)" = 0 ]; then prefix=${1:-/usr/local}; else prefix=${1:-$HOME/.local}; fi
mkdir -p "$prefix/bin"
ln -sf "$here/tools/hxc3-data" "$prefix/bin/hxc3-data"
echo "hxc3-data -> $prefix/bin/hxc3-data"
