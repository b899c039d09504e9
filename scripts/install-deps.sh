#!/usr/bin/env bash
# Installs the Debian packages zor_play needs to build, run and test, when
# any of them is missing. Safe to run again: it does nothing when all are there.
set -euo pipefail

packages=(
  g++ cmake make pkg-config            # toolchain
  libjack-jackd2-dev libsndfile1-dev libsamplerate0-dev   # libraries the server links
  jackd2                               # the JACK server (dummy backend) and jack_wait/jack_lsp
  libgtest-dev libgmock-dev libbenchmark-dev               # tests and benchmarks
  util-linux                           # prlimit, unshare
)

missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
