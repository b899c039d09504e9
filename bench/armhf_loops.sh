#!/usr/bin/env bash
# Counts, in the armhf build's disassembly, the instructions and dmb barriers
# of the innermost loops of the functions named (by default the ring buffer's
# period copies that the player's and recorder's callbacks and the multi-mono
# drain call). One sample is one store in these copies, so a loop's stores are
# the samples it moves per pass.
#   bench/armhf_loops.sh [OBJECT [FUNCTION...]]
set -euo pipefail
cd "$(dirname "$0")/.."
obj=${1:-build/armhf/CMakeFiles/zp_core.dir/src/audio/zp_buffer.cpp.o}
shift || true
[ $# -gt 0 ] || set -- Deinterleave Interleave ReadDeinterleaved WriteInterleaved
for fn in "$@"; do
  arm-linux-gnueabihf-objdump -d --no-show-raw-insn -C "$obj" |
    awk -v fn="$fn" '
      /^[0-9a-f]+ <.*>:$/ { name = $0; sub(/^[0-9a-f]+ </, "", name); sub(/^\(anonymous namespace\)::/, "", name); sub(/\(.*/, "", name); sub(/.*::/, "", name)
                            inside = (name == fn); n = 0; next }
      inside && /^ *[0-9a-f]+:\t/ {
        split($0, f, "\t"); gsub(/[ :]/, "", f[1]); addr = hex(f[1]); op = f[2]; args = f[3]
        a[n] = addr; o[n] = op; n++
        if (op ~ /^b(ne|eq|cc|cs|hi|ls|gt|lt|ge|le|mi|pl)?(\.[nw])?$/ && match(args, /^[0-9a-f]+/)) {
          t = hex(substr(args, RSTART, RLENGTH))
          if (t < addr) { lo[loops] = t; hi[loops] = addr; loops++ }
        }
      }
      inside && /^$/ { report(); inside = 0 }
      END { if (inside) report() }
      function hex(s,   i, v) { v = 0; s = tolower(s); for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1; return v }
      function report(   i, j, k, inner, ins, st, dmb, total) {
        for (i = 0; i < n; i++) if (o[i] == "dmb") total++
        for (i = 0; i < loops; i++) {
          if (hi[i] <= lo[i]) continue
          inner = 1
          for (j = 0; j < loops; j++) if (j != i && lo[j] >= lo[i] && hi[j] <= hi[i] && (lo[j] != lo[i] || hi[j] != hi[i])) inner = 0
          if (!inner) continue
          ins = st = dmb = 0
          for (k = 0; k < n; k++) if (a[k] >= lo[i] && a[k] <= hi[i]) {
            ins++; if (o[k] ~ /^(v?str|vstm|stm)/) st++; if (o[k] == "dmb") dmb++
          }
          if (!st) continue
          printf "%-18s loop %x-%x: %2d instructions, %d stores, %d dmb (%.1f instructions a sample)\n",
                 fn, lo[i], hi[i], ins, st, dmb, st ? ins / st : 0
        }
        printf "%-18s %d dmb in the whole function\n", fn, total
        loops = 0; n = 0
      }'
done
