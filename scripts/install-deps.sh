#!/usr/bin/env bash
# Installs the Debian packages the build, tests and demo need, and only those missing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libjson-c-dev libglib2.0-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev libomp-14-dev clang-format valgrind
  python3-dev pybind11-dev python3-numpy python3-pytest libcli11-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
