#!/usr/bin/env bash
# Prints the size of the test suite against the rest of the C/C++ code:
# non-blank lines of .c/.cc/.cpp/.cxx/.h/.hh/.hpp files under tests/ against
# all other such files tracked by git. Exits 1 when tests exceed the limit
# (percent, default 35).
set -euo pipefail
cd "$(dirname "$0")/.."
limit=${1:-35}
count() { [ $# -eq 0 ] && { echo 0; return; }; cat "$@" | grep -c '[^[:space:]]' || true; }
mapfile -t all < <(git ls-files -co --exclude-standard | grep -E '\.(c|cc|cpp|cxx|h|hh|hpp)$')
tests=() rest=()
for f in "${all[@]}"; do
  [ -f "$f" ] || continue
  case $f in tests/*) tests+=("$f") ;; *) rest+=("$f") ;; esac
done
t=$(count "${tests[@]}")
r=$(count "${rest[@]}")
pct=$(( r > 0 ? (100 * t + r / 2) / r : 0 ))
echo "tests: $t lines, other code: $r lines, tests/other: $pct %"
[ $(( 100 * t )) -le $(( limit * r )) ] || { echo "test suite above $limit % of the code" >&2; exit 1; }
