#!/usr/bin/env bash
# Long fuzzing: builds the fuzz targets as stage (d) of scripts/test.sh does (build-fuzz/),
# then runs each target for FUZZ_SECONDS (default 300), one after the other, one job each.
# New inputs collect in build-fuzz/fuzz-long/<target>/corpus, which is kept between runs,
# so the checked-in corpus is only read. A crashing, hanging or leaking input is copied into
# fuzz/corpus/<name>/ as crash-..., where every regular test run replays it.
# Exits non-zero when anything was found.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
JOBS=2
FUZZ_SECONDS=${FUZZ_SECONDS:-300}
BUILD="$ROOT/build-fuzz"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
if command -v llvm-symbolizer >/dev/null 2>&1; then
  export ASAN_SYMBOLIZER_PATH
  ASAN_SYMBOLIZER_PATH=$(command -v llvm-symbolizer)
fi

[[ -f "$ROOT/fuzz/CMakeLists.txt" ]] || { echo "error: no fuzz/CMakeLists.txt" >&2; exit 1; }
# Same configuration as the test run, so both share one build directory.
if [[ -f "$BUILD/CMakeCache.txt" ]] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$BUILD/CMakeCache.txt"; then
  echo "note: build-fuzz was configured with another generator; starting it afresh"
  rm -rf "$BUILD"
fi
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-g -O1" \
  -DQ7_SANITIZE=address,undefined -DQ7_FUZZ=ON -DQ7_TESTS=OFF
ninja -C "$BUILD" -j"$JOBS"

mapfile -t targets < <(find "$BUILD" -path '*/CMakeFiles' -prune -o -type f -name 'fuzz_*' -perm -u+x -print | sort)
((${#targets[@]} > 0)) || { echo "error: no fuzz_* executable was built" >&2; exit 1; }

total_runs=0
findings=0
for target in "${targets[@]}"; do
  name=$(basename "$target")
  corpus="$ROOT/fuzz/corpus/${name#fuzz_}"
  [[ -d "$corpus" ]] || { echo "error: $name: no checked-in corpus fuzz/corpus/${name#fuzz_}/" >&2; exit 1; }
  work="$BUILD/fuzz-long/$name"
  rm -rf "$work/artifacts" "$work/log"
  mkdir -p "$work/corpus" "$work/artifacts"
  echo "-- $name: ${FUZZ_SECONDS}s from fuzz/corpus/${name#fuzz_}/ and $(find "$work/corpus" -type f | wc -l) kept inputs"
  rc=0
  "$target" -max_total_time="$FUZZ_SECONDS" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/" "$work/corpus" "$corpus" >"$work/log" 2>&1 || rc=$?

  # libFuzzer prints its final statistics on a clean end and on a finding alike.
  runs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+)$/\1/p' "$work/log" | tail -n1)
  total_runs=$((total_runs + ${runs:-0}))
  found=0
  for artifact in "$work"/artifacts/*; do
    [[ -f "$artifact" ]] || continue
    base=$(basename "$artifact")
    case "$base" in
      crash-*) dest=$base ;;
      timeout-* | leak-* | oom-*) dest="crash-$base" ;;
      *) continue ;; # slow-unit-* and the like are not failures
    esac
    cp "$artifact" "$corpus/$dest"
    echo "   $name: finding fuzz/corpus/${name#fuzz_}/$dest"
    found=$((found + 1))
  done
  if ((rc != 0)); then
    tail -n 40 "$work/log"
    if ((found == 0)); then
      echo "   $name: exited with $rc but left no input behind (full log: $work/log)"
      found=1
    fi
  fi
  findings=$((findings + found))
  echo "   $name: ${runs:-0} runs, $found findings"
done

echo "fuzz: ${#targets[@]} targets, $total_runs runs, $findings findings"
((findings == 0))
