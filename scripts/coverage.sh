#!/usr/bin/env bash
# Builds with line coverage into build/coverage, runs every test and prints
# the line coverage of src/ (total and per file) with gcovr.
set -euo pipefail
source "$(dirname "$0")/common.sh"

"$ZP_ROOT/scripts/install-deps.sh"
command -v gcovr >/dev/null || { echo "gcovr is missing (apt-get install gcovr)" >&2; exit 1; }
zp_raise_queue_depth

dir=$ZP_ROOT/build/coverage
cmake -S "$ZP_ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DZP_SANITIZER= \
      -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic -O0" -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic -O0" \
      -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$dir" -j "$ZP_JOBS"
find "$dir" -name '*.gcda' -delete
ctest --test-dir "$dir" --output-on-failure -j "$ZP_JOBS" "$@"
gcovr --root "$ZP_ROOT" --filter "$ZP_ROOT/src/" --object-directory "$dir" \
      --print-summary --sort-percentage "$dir/CMakeFiles/zp_core.dir" "$dir/CMakeFiles/zor_play.dir"
