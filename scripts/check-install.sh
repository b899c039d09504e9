#!/usr/bin/env bash
# Checks zor_play as a dependency of a device image: configured with
# -DBUILD_TESTING=OFF where GoogleTest and Google Benchmark cannot be found
# (as root their folders are hidden for the configure and the build), then
# installed into a temporary prefix with every file in place, the C example
# compiled and linked outside the build tree through pkg-config, one version
# everywhere, and the Debian package's version, dependencies and contents.
# With --clang it also builds the whole tree, tests included, with clang
# (compiled only; warnings are errors).
set -euo pipefail
source "$(dirname "$0")/common.sh"

fail() { echo "check-install: $*" >&2; exit 1; }

export ZP_ROOT ZP_JOBS ZP_NOTEST=$ZP_ROOT/build/notest
build=$ZP_NOTEST
build_cmd='cmake --no-warn-unused-cli -S "$ZP_ROOT" -B "$ZP_NOTEST" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZP_WERROR=ON -DBUILD_TESTING=OFF \
             -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >/dev/null &&
           cmake --build "$ZP_NOTEST" -j "$ZP_JOBS" >/dev/null'
echo "== build without tests (-DBUILD_TESTING=OFF)"
mapfile -t hide < <(find /usr/include /usr/local/include -maxdepth 1 -type d \
                         \( -name gtest -o -name gmock -o -name benchmark \) 2>/dev/null
                    find /usr/lib /usr/local/lib -maxdepth 3 -type d -path '*/cmake/*' \
                         \( -name GTest -o -name benchmark \) 2>/dev/null)
if [ "$(id -u)" -eq 0 ] && [ ${#hide[@]} -gt 0 ]; then
  ZP_HIDE="${hide[*]}" unshare --mount --propagation private \
    bash -c 'for d in $ZP_HIDE; do mount -t tmpfs none "$d"; done; '"$build_cmd"
else
  bash -c "$build_cmd"
fi
! grep -qE '^(GTest|benchmark)_DIR:' "$build/CMakeCache.txt" || fail "the build without tests looked for GoogleTest"

prefix=$(mktemp -d) work=$(mktemp -d)
trap 'rm -rf "$prefix" "$work"' EXIT
echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/zor_play bin/zor_play_ctl include/zor_play/zor_play_client.h include/zor_play/zor_play_msg.h \
         lib/libzor_play_client.a lib/libzor_play_client.so lib/pkgconfig/zor_play_client.pc \
         lib/systemd/system/zor_play.service lib/sysctl.d/60-zor_play.conf \
         share/man/man1/zor_play.1 share/man/man1/zor_play_ctl.1; do
  [ -e "$prefix/$f" ] || fail "$f not installed"
done
unit=$prefix/lib/systemd/system/zor_play.service
for line in "ExecStart=$prefix/bin/zor_play" After=jack.service KillSignal=SIGINT Restart=on-failure \
            LimitMSGQUEUE=infinity LimitMEMLOCK=infinity LimitRTPRIO= ExecStartPost=; do
  grep -q "^$line" "$unit" || fail "the unit has no $line"
done
if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify --man=no "$unit" || fail "systemd finds fault with the unit"
fi
grep -q '^fs.mqueue.msg_max = 256' "$prefix/lib/sysctl.d/60-zor_play.conf" || fail "sysctl file without msg_max"

echo "== the C example through pkg-config"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
cp "$ZP_ROOT/examples/play_file.c" "$work/"
(cd "$work" && cc -Wall -Wextra -Werror play_file.c $(pkg-config --cflags --libs zor_play_client) -o play_file) ||
  fail "the example does not build against the installed library"
out=$(LD_LIBRARY_PATH=$prefix/lib "$work/play_file" 2>&1 || true)
[[ $out == usage:* ]] || fail "the example does not run: $out"

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ "$version" = 2.02 ] || fail "project version $version"
[[ $("$prefix/bin/zor_play" -v) == "zor_play V$version,"* ]] || fail "zor_play does not print version $version"
[ "$("$prefix/bin/zor_play_ctl" --version)" = "zor_play_ctl $version" ] || fail "zor_play_ctl version"
[ "$(pkg-config --modversion zor_play_client)" = "$version" ] || fail "pkg-config version"

echo "== Debian package"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >cpack.log 2>&1) || { cat "$build/cpack.log"; fail "cpack failed"; }
deb=$(ls "$build"/*.deb)
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "package version"
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libjack libsndfile1 libsamplerate0 libc6; do
  [[ $depends == *$lib* ]] || fail "package does not depend on $lib: $depends"
done
contents=$(dpkg-deb -c "$deb")
for f in bin/zor_play bin/zor_play_ctl include/zor_play/zor_play_client.h lib/pkgconfig/zor_play_client.pc \
         lib/systemd/system/zor_play.service lib/sysctl.d/60-zor_play.conf share/man/man1/zor_play_ctl.1; do
  grep -q "\./usr/$f\$" <<<"$contents" || fail "package lacks /usr/$f"
done
# Resolves the dependencies as `apt install ./FILE.deb` would, without installing.
if command -v apt-get >/dev/null; then
  apt-get -s -o Debug::NoLocking=1 install "$deb" >/dev/null 2>&1 || fail "apt cannot install $deb"
fi
echo "$(basename "$deb"): Depends: $depends"

if [ "${1:-}" = --clang ]; then
  echo "== clang build (compiled only)"
  CC=clang CXX=clang++ cmake -S "$ZP_ROOT" -B "$ZP_ROOT/build/clang" -DZP_WERROR=ON >/dev/null
  cmake --build "$ZP_ROOT/build/clang" -j "$ZP_JOBS" >/dev/null
fi
echo "Install checks passed."
