#!/usr/bin/env bash
# Installs the system packages Kestrel needs (Debian; run as root or with sudo).
# Does nothing when everything is already there.
set -euo pipefail

packages=(g++ clang cmake make pkg-config libgtest-dev libbenchmark-dev libsndfile1-dev libsoxr-dev bc time
          parallel munge slurmctld slurmd slurm-client)
# The Python package (build, tests, plots, Dask batches, pip install in a venv).
packages+=(python3-dev pybind11-dev python3-pybind11 python3-numpy python3-pytest python3-matplotlib
           python3-distributed python3-venv python3-setuptools python3-wheel python3-pip)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null; then sudo_cmd=(sudo); else
    echo "Error: need root (or sudo) to install: ${missing[*]}" >&2; exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
