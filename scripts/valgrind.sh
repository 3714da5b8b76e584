#!/usr/bin/env bash
# Runs every test program of a g++ Debug build (build-valgrind/, configured as stage (a) of
# scripts/test.sh but with counted objects from malloc, which memcheck watches) under valgrind
# memcheck, child processes included, and prints last:
#   valgrind: N programs, E errors, B bytes lost
# where B counts the bytes definitely or indirectly lost. Exits non-zero unless both are 0.
#
# The processes that death tests start abort on purpose and are not checked. The model test runs
# Q7_MODEL_SEQUENCES sequences (default here 300; memcheck is some 50 times slower).
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
BUILD="$ROOT/build-valgrind"
LOGS="$BUILD/valgrind"
JOBS=2

bash "$ROOT/scripts/setup.sh" valgrind

if [[ -f "$BUILD/CMakeCache.txt" ]] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$BUILD/CMakeCache.txt"; then
  echo "note: build-valgrind was configured with another generator; starting it afresh"
  rm -rf "$BUILD"
fi
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_CXX_COMPILER=g++ \
  -DCMAKE_BUILD_TYPE=Debug -DQ7_SANITIZE= -DQ7_TESTS=ON -DQ7_THREAD_TESTS_ONLY=OFF -DQ7_FUZZ=OFF -DQ7_MIMALLOC=OFF >/dev/null
ninja -C "$BUILD" -j"$JOBS"

mapfile -t programs < <(find "$BUILD/tests" -maxdepth 1 -type f -name '*Test' -perm -u+x | sort)
((${#programs[@]} > 0)) || { echo "error: no test programs in $BUILD/tests" >&2; exit 1; }

rm -rf "$LOGS"
mkdir -p "$LOGS"
export Q7_MODEL_SEQUENCES=${Q7_MODEL_SEQUENCES:-300}
# Death tests start their child by running the program again; that child aborts on purpose.
export GTEST_DEATH_TEST_STYLE=threadsafe

failed=0
for program in "${programs[@]}"; do
  name=$(basename "$program")
  mkdir -p "$LOGS/$name"
  printf -- '-- %s\n' "$name"
  if ! valgrind --tool=memcheck --error-exitcode=99 \
      --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
      --trace-children=yes --trace-children-skip-by-arg='*internal_run_death_test*' \
      --log-file="$LOGS/$name/%p.log" \
      "$program" >"$LOGS/$name/output.txt" 2>&1; then
    echo "   FAILED (exit status or valgrind errors): see $LOGS/$name/"
    tail -n 20 "$LOGS/$name/output.txt"
    failed=1
  fi
done

# Each process writes its own log; the figures add them up. Every program's own process must
# have written its summary, or the figures would count nothing.
errors=0
lost=0
summaries=$(grep -l 'ERROR SUMMARY' -r "$LOGS" --include='*.log' | wc -l)
if ((summaries < ${#programs[@]})); then
  echo "error: ${summaries} valgrind summaries for ${#programs[@]} programs"
  failed=1
fi
while IFS= read -r log; do
  e=$(sed -nE 's/.*ERROR SUMMARY: ([0-9,]+) errors?.*/\1/p' "$log" | tail -n1 | tr -d ,)
  errors=$((errors + ${e:-0}))
  for kind in definitely indirectly; do
    b=$(sed -nE "s/.*${kind} lost: ([0-9,]+) bytes.*/\\1/p" "$log" | tail -n1 | tr -d ,)
    lost=$((lost + ${b:-0}))
  done
  if grep -qE 'ERROR SUMMARY: [1-9]|(definitely|indirectly) lost: [1-9]' "$log"; then
    echo "== $log"
    cat "$log"
  fi
done < <(find "$LOGS" -name '*.log' | sort)

echo "valgrind: ${#programs[@]} programs, ${errors} errors, ${lost} bytes lost"
((failed == 0 && errors == 0 && lost == 0))
