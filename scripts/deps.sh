#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the sample run need,
# only those that are missing. Safe to run any number of times.
set -euo pipefail

packages=(
  cmake make g++ pkg-config
  libboost-dev
  libzip-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  clang libclang-rt-14-dev
  zip unzip python3 procps util-linux bsdutils
  p7zip-full libarchive-tools
  # The farm engines the tests start: a two-node Slurm cluster and a Grid
  # Engine cell on this machine.
  slurm-wlm munge
  gridengine-master gridengine-exec gridengine-client
  # The run report's page is looked at in a real browser.
  chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  if [ "$(id -u)" != 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -q
  $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
