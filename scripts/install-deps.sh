#!/usr/bin/env bash
# Installs the Debian packages zor_play needs to build, run and test, when
# any of them is missing. Safe to run again: it does nothing when all are there.
# With arguments, installs those packages instead (NAME or NAME:ARCH); a
# foreign architecture named that way is added to dpkg first.
set -euo pipefail

if [ $# -gt 0 ]; then
  packages=("$@")
else
  packages=(
    g++ cmake make pkg-config            # toolchain
    libjack-jackd2-dev libsndfile1-dev libsamplerate0-dev   # libraries the server links
    jackd2                               # the JACK server (dummy backend) and jack_wait/jack_lsp
    libgtest-dev libgmock-dev libbenchmark-dev               # tests and benchmarks
    util-linux                           # prlimit, unshare
    clang dpkg-dev                       # the clang build; dpkg-shlibdeps for the package
  )
fi

native=$(dpkg --print-architecture)

# Asks about one architecture's package: on a machine with a second
# architecture, `dpkg -s NAME` is "ambiguous" for a package installed for
# both. A bare name means the native package; architecture-independent
# packages answer as NAME:all.
installed() {
  local name=${1%%:*} arch=$native q
  [ "$1" != "$name" ] && arch=${1#*:}
  for q in "$name:$arch" "$name:all"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$q" 2>/dev/null)" = installed ] && return 0
  done
  return 1
}

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
for p in "${missing[@]}"; do
  case $p in
    *:*)
      arch=${p#*:}
      if [ "$arch" != "$native" ] && [ "$arch" != all ] &&
         ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
        echo "Adding the $arch architecture"
        $sudo dpkg --add-architecture "$arch"
      fi ;;
  esac
done
# One index that cannot be fetched (a mirror being synced) fails the update
# but seldom the install: only a failed install is a failure.
$sudo apt-get update -qq || echo "warning: apt-get update could not fetch every index; installing from what it has" >&2
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
