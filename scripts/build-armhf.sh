#!/usr/bin/env bash
# Cross-builds zor_play for the 32-bit ARMv7 devices (Debian armhf) into
# build/armhf and runs the tests under qemu-arm: every unit test, then every
# integration test with the armhf zor_play against an armhf jackd. Installs
# what is missing first. Ends with the line "N passed, M failed" (test cases
# over all programs); exits 1 when a test failed. Test programs may be named
# (scripts/build-armhf.sh it_progress_test) to run only those.
#
# No binfmt handler is assumed: every armhf program is started through
# qemu-arm, the JACK tools and the programs the tests start (zor_play and the
# like) through small wrapper scripts. Each test program runs in its own
# private IPC and mount namespace (root needed), where the wrappers are
# bind-mounted over /usr/bin/jackd, the other JACK tools and setpriv. A case
# the emulator cannot run skips itself with its reason, which is printed.
set -euo pipefail
source "$(dirname "$0")/common.sh"

build=$ZP_ROOT/build/armhf
jack_root=$build/jack-armhf   # the armhf JACK server, unpacked, never installed
emu=$build/emu                # wrapper scripts

"$ZP_ROOT/scripts/install-deps.sh" g++-arm-linux-gnueabihf qemu-user libjack-jackd2-dev:armhf \
  libsndfile1-dev:armhf libsamplerate0-dev:armhf libgtest-dev:armhf libgmock-dev:armhf libbenchmark-dev:armhf

echo "== armhf cross-build"
cmake -S "$ZP_ROOT" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$ZP_ROOT/cmake/armhf-toolchain.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZP_WERROR=ON >/dev/null
# The programs the integration tests start, as ctest names them to the tests
# (ZOR_PLAY_BIN=... and the like): VARIABLE PATH lines.
programs=$(ctest --test-dir "$build" --show-only=json-v1 | grep -o '"[A-Z_][A-Z0-9_]*=/[^"]*"' | tr -d '"' |
  sort -u | tr '=' ' ')
# Those and the tests; the benchmarks are left to a build by hand.
targets=$(cmake --build "$build" --target help | sed -n 's/^\.\.\. \(unit_[a-z0-9_]*\|it_[a-z0-9_]*\)$/\1/p')
# shellcheck disable=SC2086
cmake --build "$build" -j "$ZP_JOBS" --target $targets $(echo "$programs" | awk '{ sub(".*/", "", $2); print $2 }') \
  >/dev/null

# jackd2:armhf and the armhf libraries it loads that the -dev packages above
# do not bring (the dummy driver needs no others).
if [ ! -x "$jack_root/usr/bin/jackd" ]; then
  echo "Unpacking the armhf JACK server into $jack_root"
  rm -rf "$build/debs" "$jack_root"
  mkdir -p "$build/debs" "$jack_root"
  (cd "$build/debs" && apt-get download -q -o APT::Sandbox::User=root jackd2:armhf libsystemd0:armhf \
     libdbus-1-3:armhf libcap2:armhf libgcrypt20:armhf libgpg-error0:armhf liblzma5:armhf libzstd1:armhf \
     liblz4-1:armhf >/dev/null)
  for deb in "$build"/debs/*.deb; do dpkg -x "$deb" "$jack_root"; done
fi

mkdir -p "$emu"
libs=$jack_root/lib/arm-linux-gnueabihf:$jack_root/usr/lib/arm-linux-gnueabihf
for tool in jackd jack_wait jack_lsp jack_connect; do
  # jackd finds its drivers by listing a folder, which a 32-bit program under
  # the emulator cannot do on a large ext4 folder (64-bit directory offsets):
  # the dummy driver is copied into a tmpfs mounted over emu/drivers in the
  # namespace (not under /tmp, which some tests mount afresh).
  printf '#!/bin/sh\nexec qemu-arm -E LD_LIBRARY_PATH=%s -E JACK_DRIVER_DIR=%s %s "$@"\n' \
    "$libs" "$emu/drivers" "$jack_root/usr/bin/$tool" >"$emu/$tool"
done
# Each program the tests start gets a wrapper that runs it under the emulator.
program_env=()
while read -r var path; do
  [ -n "$var" ] || continue
  printf '#!/bin/sh\nexec qemu-arm %s "$@"\n' "$path" >"$emu/$var"
  program_env+=("$var=$emu/$var")
done <<<"$programs"
# Tests that run something as another user start it through setpriv, and
# some start their own binary that way: setpriv runs an armhf program through
# the emulator (the real setpriv is bind-mounted at emu/setpriv.real).
cat >"$emu/setpriv" <<EOF
#!/bin/bash
args=() found=0
for a in "\$@"; do
  # An ELF file for ARM (e_machine 40 at byte 18) is the program to run.
  if [ \$found = 0 ] && [ -f "\$a" ] && [ "\$(od -An -tx1 -N4 "\$a")" = " 7f 45 4c 46" ] &&
     [ "\$(od -An -tx1 -j18 -N2 "\$a")" = " 28 00" ]; then
    args+=(qemu-arm) found=1
  fi
  args+=("\$a")
done
exec "$emu/setpriv.real" "\${args[@]}"
EOF
chmod +x "$emu"/*
mkdir -p "$emu/drivers"
touch "$emu/setpriv.real"

# In_namespace CMD...: runs CMD with a private /tmp, /dev/shm and IPC
# namespace (queue depth raised), the armhf JACK tools over the native ones
# and setpriv able to start armhf programs.
in_namespace() {
  unshare --ipc --mount --propagation private bash -c '
    set -e
    mount -t tmpfs none /tmp
    mount -t tmpfs none /dev/shm
    echo 256 > /proc/sys/fs/mqueue/msg_max
    mount -t tmpfs none "$1/drivers"
    cp "$0/usr/lib/arm-linux-gnueabihf/jack/jack_dummy.so" "$1/drivers/"
    for tool in jackd jack_wait jack_lsp jack_connect; do mount --bind "$1/$tool" "/usr/bin/$tool"; done
    mount --bind /usr/bin/setpriv "$1/setpriv.real"
    mount --bind "$1/setpriv" /usr/bin/setpriv
    shift
    exec "$@"' "$jack_root" "$emu" "$@"
}

logs=$build/test-logs
rm -rf "$logs"
mkdir -p "$logs"
passed=0 failed=0 skipped=0

# Run_program NAME: runs one test program under the emulator and adds its
# cases to the counts; prints the output of a program that failed, and the
# reason of every skipped case.
run_program() {
  local name=$1 log=$logs/$1.log p f s rc=0
  in_namespace env "${program_env[@]}" timeout -k 10 900 qemu-arm "$build/tests/$name" >"$log" 2>&1 || rc=$?
  p=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\{0,1\}\.$/\1/p' "$log")
  f=$(sed -n 's/^\[  FAILED  \] \([0-9]*\) tests\{0,1\}, listed below:$/\1/p' "$log")
  s=$(sed -n 's/^\[  SKIPPED \] \([0-9]*\) tests\{0,1\}, listed below:$/\1/p' "$log")
  p=${p:-0} f=${f:-0} s=${s:-0}
  # A program that crashed or hung before its summary counts as one failure.
  [ "$rc" -ne 0 ] && [ "$f" -eq 0 ] && f=1
  passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
  printf '%-36s %3d passed, %d failed, %d skipped\n' "$name" "$p" "$f" "$s"
  grep -a -A1 ': Skipped$' "$log" | grep -v -e ': Skipped$' -e '^--$' -e '^$' | sed 's/^/    skipped: /' || true
  if [ "$f" -gt 0 ]; then
    echo "---- $name (exit status $rc) ----"
    cat "$log"
    echo "----"
  fi
}

if [ $# -gt 0 ]; then
  for t in "$@"; do run_program "$t"; done
else
  echo "== unit tests under qemu-arm"
  for t in $targets; do if [[ $t == unit_* ]]; then run_program "$t"; fi; done
  echo "== integration tests under qemu-arm: armhf zor_play against an armhf jackd"
  for t in $targets; do if [[ $t == it_* ]]; then run_program "$t"; fi; done
fi

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
