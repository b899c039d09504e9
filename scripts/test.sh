#!/usr/bin/env bash
# Builds and runs every test: the plain build, then AddressSanitizer with
# UndefinedBehaviorSanitizer, then ThreadSanitizer on the unit and stress tests.
set -euo pipefail
source "$(dirname "$0")/common.sh"

"$ZP_ROOT/scripts/install-deps.sh"
zp_raise_queue_depth

run_ctest() {
  local dir=$1; shift
  ctest --test-dir "$ZP_ROOT/build/$dir" --output-on-failure -j "$ZP_JOBS" "$@"
}

echo "== plain build"
zp_build default ""
run_ctest default

echo "== build without tests, installation and package"
"$ZP_ROOT/scripts/check-install.sh"

echo "== address + undefined behaviour sanitizers"
zp_build asan asan
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
LSAN_OPTIONS=suppressions="$ZP_ROOT/tests/lsan.supp":print_suppressions=0 \
UBSAN_OPTIONS=print_stacktrace=1 \
run_ctest asan

echo "== thread sanitizer (unit and stress tests)"
zp_build tsan tsan
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_ctest tsan -L unit

echo "All tests passed."
