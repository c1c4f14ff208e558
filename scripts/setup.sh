#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with. Quick when all are there.
set -euo pipefail

packages=(
  cmake make g++ pkg-config binutils
  libgtest-dev libbenchmark-dev libfftw3-dev libpng-dev
  libdvbpsi-dev
  ffmpeg jq
  libsoapysdr-dev soapysdr-module-all libliquid-dev
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}" >&2
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  sudo=(sudo)
fi
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
