#!/usr/bin/env bash
# Builds and runs every test stage, stopping at the first failure:
#   (a) build-test/  g++ Debug build, the whole test suite
#   (b) build-asan/  clang, AddressSanitizer + UndefinedBehaviorSanitizer
#   (c) build-tsan/  clang, ThreadSanitizer, thread tests only (ctest -L thread)
#   (d) build-fuzz/  clang, libFuzzer targets over their checked-in corpora
#   (e) build-glibcxx/ g++ with the standard library's debug mode (checked iterators and
#                    containers, -D_GLIBCXX_DEBUG -D_GLIBCXX_ASSERTIONS), the whole suite
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
JOBS=2
FUZZ_RUNS=20000
FUZZ_MAX_SECONDS=120   # per target: a guard for the time budget of a run
TEST_TIMEOUT=300       # per test, seconds

T0=$SECONDS
STAGE="setup"
STAGE_T0=$SECONDS
SUMMARY=()
TESTS_PASSED=0
LAST_CTEST_COUNT=0
CTEST_WRAPPER=()

fmt_time() { printf '%dm%02ds' $(($1 / 60)) $(($1 % 60)); }

banner() {
  printf '\n==================================================================\n'
  printf '== %s\n' "$*"
  printf '==================================================================\n'
}

on_exit() {
  local rc=$?
  if ((rc != 0)); then
    banner "FAILED: stage ${STAGE} (exit ${rc}) after $(fmt_time $((SECONDS - T0)))"
  fi
}
trap on_exit EXIT

fail() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

begin_stage() {
  STAGE=$1
  STAGE_T0=$SECONDS
  banner "stage ${STAGE}"
}

end_stage() {
  local note=$1
  SUMMARY+=("$(printf '%-30s %-40s %s' "$STAGE" "$note" "$(fmt_time $((SECONDS - STAGE_T0)))")")
}

# configure DIR CXX [cmake args...]
configure() {
  local dir=$1 cxx=$2
  shift 2
  local cache="$ROOT/$dir/CMakeCache.txt"
  if [[ -f "$cache" ]] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$cache"; then
    echo "note: $dir was configured with another generator; starting it afresh"
    rm -rf "${ROOT:?}/$dir"
  fi
  cmake -S "$ROOT" -B "$ROOT/$dir" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" "$@"
}

build() {
  ninja -C "$ROOT/$1" -j"$JOBS"
}

# run_ctest DIR NUM_TEST_SOURCES [ctest args...]
# With no test programs at all, an empty run is expected and allowed; once
# there are test programs, a run that finds no test is an error.
run_ctest() {
  local dir=$1 nsources=$2
  shift 2
  local no_tests=error
  if ((nsources == 0)); then
    no_tests=ignore
    echo "note: no test programs yet (tests/**/*Test.cpp); nothing to run"
  fi
  local log="$ROOT/$dir/ctest-output.log"
  "${CTEST_WRAPPER[@]}" ctest --test-dir "$ROOT/$dir" --output-on-failure -j"$JOBS" \
    --timeout "$TEST_TIMEOUT" --no-tests="$no_tests" "$@" 2>&1 | tee "$log"
  # ctest prints e.g. "100% tests passed, 0 tests failed out of 12".
  local n
  n=$(sed -nE 's/^[0-9]+% tests passed, [0-9]+ tests? failed out of ([0-9]+)$/\1/p' "$log" | tail -n1)
  LAST_CTEST_COUNT=${n:-0}
  TESTS_PASSED=$((TESTS_PASSED + LAST_CTEST_COUNT))
}

# The test programs, as tests/CMakeLists.txt finds them.
mapfile -t ALL_TEST_SOURCES < <(find "$ROOT/tests" -name '*Test.cpp' -not -path "$ROOT/tests/support/*")
mapfile -t THREAD_TEST_SOURCES < <(find "$ROOT/tests" -name '*Thread*Test.cpp' -not -path "$ROOT/tests/support/*")

SAN_DEBUG_FLAGS="-g -O1"   # keep assertions, but not as slow as -O0
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
if command -v llvm-symbolizer >/dev/null 2>&1; then
  export ASAN_SYMBOLIZER_PATH
  ASAN_SYMBOLIZER_PATH=$(command -v llvm-symbolizer)
fi

# ---------------------------------------------------------------- setup
begin_stage "setup"
bash "$ROOT/scripts/setup.sh"
end_stage "packages present"

# ---------------------------------------------------------------- (a)
begin_stage "(a) g++ Debug"
configure build-test g++ \
  -DCMAKE_BUILD_TYPE=Debug -DQ7_SANITIZE= -DQ7_TESTS=ON -DQ7_THREAD_TESTS_ONLY=OFF -DQ7_FUZZ=OFF
build build-test
run_ctest build-test "${#ALL_TEST_SOURCES[@]}"
end_stage "${LAST_CTEST_COUNT} tests passed"

# ---------------------------------------------------------------- (b)
begin_stage "(b) clang ASan+UBSan"
configure build-asan clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="$SAN_DEBUG_FLAGS" \
  -DQ7_SANITIZE=address,undefined -DQ7_TESTS=ON -DQ7_THREAD_TESTS_ONLY=OFF -DQ7_FUZZ=OFF
build build-asan
run_ctest build-asan "${#ALL_TEST_SOURCES[@]}"
end_stage "${LAST_CTEST_COUNT} tests passed"

# ---------------------------------------------------------------- (c)
begin_stage "(c) clang TSan, thread tests"
if ((${#THREAD_TEST_SOURCES[@]} == 0)); then
  echo "skipped: no thread test programs yet (tests/**/*Thread*Test.cpp)"
  end_stage "skipped: no thread tests"
else
  configure build-tsan clang++ \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="$SAN_DEBUG_FLAGS" \
    -DQ7_SANITIZE=thread -DQ7_TESTS=ON -DQ7_THREAD_TESTS_ONLY=ON -DQ7_FUZZ=OFF -DQ7_HOST=OFF
  build build-tsan
  # ThreadSanitizer of clang 14 cannot map its shadow memory on kernels with
  # high-entropy address randomisation; running without it avoids that.
  if setarch "$(uname -m)" -R true 2>/dev/null; then
    CTEST_WRAPPER=(setarch "$(uname -m)" -R)
  fi
  run_ctest build-tsan "${#THREAD_TEST_SOURCES[@]}" -L thread
  CTEST_WRAPPER=()
  end_stage "${LAST_CTEST_COUNT} thread tests passed"
fi

# ---------------------------------------------------------------- (d)
begin_stage "(d) clang libFuzzer"
if [[ ! -f "$ROOT/fuzz/CMakeLists.txt" ]]; then
  echo "skipped: no fuzz/CMakeLists.txt yet"
  end_stage "skipped: no fuzz targets"
else
  configure build-fuzz clang++ \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="$SAN_DEBUG_FLAGS" \
    -DQ7_SANITIZE=address,undefined -DQ7_FUZZ=ON -DQ7_TESTS=OFF -DQ7_HOST=OFF
  build build-fuzz
  mapfile -t targets < <(find "$ROOT/build-fuzz" -path '*/CMakeFiles' -prune -o \
    -type f -name 'fuzz_*' -perm -u+x -print | sort)
  ((${#targets[@]} > 0)) || fail "fuzz/CMakeLists.txt exists but no fuzz_* executable was built"
  for target in "${targets[@]}"; do
    name=$(basename "$target")
    corpus="$ROOT/fuzz/corpus/${name#fuzz_}"
    [[ -d "$corpus" ]] || fail "$name: no checked-in corpus directory fuzz/corpus/${name#fuzz_}/"
    work="$ROOT/build-fuzz/fuzz-run/$name"
    rm -rf "$work"
    mkdir -p "$work/new" "$work/artifacts"
    echo "-- $name: $FUZZ_RUNS runs over fuzz/corpus/${name#fuzz_}/ ($(find "$corpus" -type f | wc -l) inputs)"
    # New inputs go to the first (scratch) directory, so the checked-in
    # corpus stays untouched; crashing inputs go to $work/artifacts/.
    if ! "$target" -runs="$FUZZ_RUNS" -max_total_time="$FUZZ_MAX_SECONDS" -timeout=10 \
         -artifact_prefix="$work/artifacts/" "$work/new" "$corpus" >"$work/log" 2>&1; then
      tail -n 60 "$work/log"
      ls -l "$work/artifacts" || true
      fail "$name failed: crash, leak, timeout or out of memory (full log: $work/log)"
    fi
    grep -E '^Done [0-9]+ runs' "$work/log" | sed "s/^/   $name: /" || true
  done
  end_stage "${#targets[@]} fuzz targets clean"
fi

# ---------------------------------------------------------------- (e)
begin_stage "(e) g++ _GLIBCXX_DEBUG"
# Every object of the project is built in debug mode. The system's GoogleTest is not, but
# debug-mode containers have other names, so a container crossing over would fail to link.
configure build-glibcxx g++ \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-D_GLIBCXX_DEBUG -D_GLIBCXX_ASSERTIONS" \
  -DQ7_SANITIZE= -DQ7_TESTS=ON -DQ7_THREAD_TESTS_ONLY=OFF -DQ7_FUZZ=OFF
build build-glibcxx
run_ctest build-glibcxx "${#ALL_TEST_SOURCES[@]}"
end_stage "${LAST_CTEST_COUNT} tests passed"

# ---------------------------------------------------------------- summary
STAGE="summary"
banner "all stages passed"
printf '%s\n' "${SUMMARY[@]}"
echo "total time: $(fmt_time $((SECONDS - T0)))"
echo "tests: ${TESTS_PASSED} passed, 0 failed"
