#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them beside the reference programs of
# ../shared/perf-reference (limit and naive), N by N so that both meet the same machine
# conditions, then prints one table: each figure beside limit and naive at the same N, with
# the ratios and the target it is held to.
#
#   scripts/bench.sh            the whole run (about 22 minutes on 2 cores)
#   scripts/bench.sh --quick    N = 1,000 and 10,000 only, for a quick look
#
# Raw outputs and the table go to build-bench/results/. Set Q7_PERF_REFERENCE to use another
# copy of the reference.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
REF=${Q7_PERF_REFERENCE:-$ROOT/../shared/perf-reference}
BUILD=$ROOT/build-bench
OUT=$BUILD/results
SIZES=(1000 10000 100000 1000000)
if [[ ${1:-} == --quick ]]; then SIZES=(1000 10000); fi

[[ -f $REF/limit.cpp && -f $REF/naive.cpp && -f $REF/common.h ]] ||
  { echo "bench: no reference in $REF (it sits beside the repository as shared/perf-reference)" >&2; exit 1; }

bash scripts/setup.sh

echo "== building (Release) into $BUILD"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DQ7_BENCH=ON -DCMAKE_BUILD_TYPE=Release -DQ7_TESTS=OFF >/dev/null
ninja -C "$BUILD" q7bench

# The reference is read-only where it lives: build a copy, with its own command lines.
rm -rf "$OUT"
mkdir -p "$OUT/ref"
cp "$REF/limit.cpp" "$REF/naive.cpp" "$REF/common.h" "$OUT/ref/"
(
  cd "$OUT/ref"
  CXXFLAGS="-std=c++17 -O2 -DNDEBUG -Wall -Wextra"
  g++ $CXXFLAGS -o limit limit.cpp $(pkg-config --libs absl_flat_hash_map absl_inlined_vector absl_hash fmt)
  g++ $CXXFLAGS -o naive naive.cpp -lfmt
)
Q7=$BUILD/bench/q7bench
RAW=$OUT/raw.txt
FIG=$OUT/figures.tsv   # source <TAB> figure <TAB> N <TAB> median
: >"$RAW"
: >"$FIG"

# limit/naive print "ROW prog scenario N reps lifeMin lifeMed subMin subMed relMin relMed extra1 extra2 rss heap".
reference() {
  local prog=$1 sc=$2 n=$3
  echo "== $prog $sc $n"
  "$OUT/ref/$prog" "$sc" "$n" | tee -a "$RAW" | awk -F'\t' -v OFS='\t' '$1 == "ROW" {
    if ($3 == "distinct") {
      print $2, "distinct.lifecycle", $4, $7; print $2, "distinct.lifecycle (min)", $4, $6
      print $2, "distinct.subscribe", $4, $9
      print $2, "distinct.release", $4, $11; print $2, "distinct.dedup_hit", $4, $12
      print $2, "distinct.heap_B_per_sub", $4, $15
    } else {
      print $2, "conflict.lifecycle", $4, $7; print $2, "conflict.lifecycle (min)", $4, $6
      print $2, "conflict.evict", $4, $12
      print $2, "conflict.restore", $4, $13; print $2, "conflict.heap_B_per_sub", $4, $15
    } }' >>"$FIG"
}

# q7bench prints "ROW name[/N] min median count" after Google Benchmark's own report.
ours() {
  echo "== q7bench $1"
  "$Q7" --benchmark_filter="$1" --benchmark_color=false 2>&1 | tee -a "$RAW" |
    awk -F'\t' -v OFS='\t' '{ sub(/^.*ROW\t/, "ROW\t") } $1 == "ROW" {
      n = "-"; name = $2
      if (match(name, /\/[0-9]+$/)) { n = substr(name, RSTART + 1); name = substr(name, 1, RSTART - 1) }
      print "q7", name, n, $4
      if (name ~ /\.lifecycle$/) print "q7", name " (min)", n, $3 }' >>"$FIG"
}

# The runs at N <= 10,000 take a second or two each, so a burst of work from the machine's other
# tenants can weigh on one program's whole run: three rounds alternate the programs there, and
# the table takes the median of the rounds for each program alike.
for n in "${SIZES[@]}"; do
  rounds=1
  ((n <= 10000)) && rounds=3
  for ((round = 1; round <= rounds; ++round)); do
    for sc in distinct conflict; do
      reference limit $sc $n
      reference naive $sc $n
      ours "^$sc/$n/"
    done
  done
  ours "^handler_register/$n/"
  ours "^dump/$n/"
done
ours '^(module_get|module_ptr_copy|trace_point/.*)$'

# Instructions of one lifecycle at N = 10,000: one callgrind dump per phase of the last repetition.
if command -v valgrind >/dev/null; then
  mkdir -p "$OUT/cg"
  callgrind() {  # label, ops per phase list "phase:ops ...", command...
    local label=$1
    shift
    (cd "$OUT/cg" && valgrind --tool=callgrind --callgrind-out-file="cg.$label" "$@" >/dev/null 2>&1) || true
    local total=0 f phase ir
    for f in "$OUT/cg/cg.$label".*; do
      [[ -f $f ]] || continue
      phase=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
      ir=$(sed -n 's/^summary: //p' "$f")
      case $phase in
        subscribe | release) total=$((total + ir)) ;;
        dedup) printf '%s\tcallgrind.dedup_hit_Ir\t10000\t%d\n' "$label" $((ir / 10000)) >>"$FIG" ;;
      esac
    done
    printf '%s\tcallgrind.lifecycle_Ir\t10000\t%d\n' "$label" $((total / 10000)) >>"$FIG"
  }
  echo "== callgrind, N = 10,000"
  callgrind limit "$OUT/ref/limit" distinct 10000 1 --callgrind
  callgrind naive "$OUT/ref/naive" distinct 10000 1 --callgrind
  callgrind q7 "$Q7" --callgrind distinct 10000
fi

# The table: one row per figure and N, q7 beside limit and naive.
table() {
  awk -F'\t' '
    { k = $1 SUBSEP $2 SUBSEP $3; got[k, ++rounds[k]] = $4
      if (!($2 in figSeen)) { figSeen[$2] = 1; figs[++nfigs] = $2 }
      if (!(($2 SUBSEP $3) in seen)) { seen[$2 SUBSEP $3] = 1; ns[$2, ++count[$2]] = $3 } }
    function num(x) { return x == "" ? "—" : sprintf("%\047.0f", x) }
    function ratio(a, b) { return (a == "" || b == "" || b == 0) ? "—" : sprintf("%.2fx", a / b) }
    function target(fig, q, l, nv, n,   r) {
      if (fig == "distinct.lifecycle" || fig == "conflict.lifecycle") {
        if (l == "" || nv == "") return ""
        return (q <= 2 * l && q < nv) ? "≤ 2x limit, < naive: met" : "≤ 2x limit, < naive: MISSED"
      }
      if (fig == "distinct.heap_B_per_sub") return (l == "") ? "" : (q <= 2.5 * l ? "≤ 2.5x limit: met" : "≤ 2.5x limit: MISSED")
      if (fig == "distinct.dedup_hit") return (l == "") ? "" : (q <= 2 * l ? "≤ 2x limit: met" : "≤ 2x limit: MISSED")
      if (fig == "dump.MB_per_s" && n == 100000) return q >= 50 ? "≥ 50 MB/s: met" : "≥ 50 MB/s: MISSED"
      return ""
    }
    function median(k,   n, i, j, x, a) {  # of the rounds of one program, figure and N
      n = rounds[k]
      for (i = 1; i <= n; ++i) {
        x = got[k, i] + 0
        for (j = i - 1; j >= 1 && a[j] > x; --j) a[j + 1] = a[j]
        a[j + 1] = x
      }
      return a[int((n + 1) / 2)]
    }
    END {
      for (k in rounds) v[k] = median(k)
      print "| figure | N | q7 | limit | naive | q7/limit | q7/naive | target |"
      print "|---|---:|---:|---:|---:|---:|---:|---|"
      for (f = 1; f <= nfigs; ++f) for (j = 1; j <= count[figs[f]]; ++j) {
        fig = figs[f]; n = ns[fig, j]
        q = v["q7" SUBSEP fig SUBSEP n]; if (q == "") continue
        l = v["limit" SUBSEP fig SUBSEP n]; nv = v["naive" SUBSEP fig SUBSEP n]
        if (fig ~ /^(trace_point|module_)/ || fig ~ /per_container|other_key|dump\./) {
          shown = sprintf("%.1f", q)
          if (fig == "module_get") l2 = v["q7" SUBSEP "module_ptr_copy" SUBSEP "-"]
        } else shown = num(q)
        t = target(fig, q, l, nv, n)
        if (fig == "module_get") t = sprintf("≈ one counted pointer copy (%.1f ns): %s", l2, (q <= 1.5 * l2 + 1) ? "met" : "MISSED")
        printf "| %s | %s | %s | %s | %s | %s | %s | %s |\n", fig, (n == "-" ? "" : num(n)), shown, num(l), num(nv), ratio(q, l), ratio(q, nv), t
      }
    }' "$FIG"
}

table | tee "$OUT/table.md"
echo
echo "figures in ns per operation unless named otherwise (medians; at N <= 10,000 the median of three rounds); raw output in $RAW"
echo "machine: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores, $(free -g | awk '/Mem:/ {print $2}') GiB"
