#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
# Extra package names given as arguments are installed along with them.
set -euo pipefail

packages=(cmake g++ make libgtest-dev nlohmann-json3-dev "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
