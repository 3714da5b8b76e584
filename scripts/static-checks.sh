#!/usr/bin/env bash
# Static checks of the module, the framework layer and the host program (KelLib/, platform/,
# host/ with host/commands/, and the headers they include from there): clang-tidy with the
# bugprone, concurrency and performance checks over the compile database of build-tidy/, then
# cppcheck. Prints every finding, and last:
#   static checks: N findings (clang-tidy T, cppcheck C)
# Exits non-zero unless N is 0. A finding is suppressed only where it stands (NOLINT or
# cppcheck-suppress with the reason), or below for a whole check, with the reason.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
BUILD="$ROOT/build-tidy"
JOBS=2

bash "$ROOT/scripts/setup.sh" clang-tidy cppcheck

if [[ -f "$BUILD/CMakeCache.txt" ]] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$BUILD/CMakeCache.txt"; then
  rm -rf "$BUILD"
fi
# Configuring writes compile_commands.json; the protocol's generated header is the one file the
# sources need that the build makes.
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
  -DQ7_SANITIZE= -DQ7_TESTS=OFF -DQ7_FUZZ=OFF -DQ7_BENCH=OFF >/dev/null
ninja -C "$BUILD" generated/platform/Q7Serdes/Sync.pb.h >/dev/null

mapfile -t SOURCES < <(cd "$ROOT" && ls KelLib/*.cpp platform/*/*.cpp host/*.cpp host/commands/*.cpp)

CHECKS=(
  '-*' 'bugprone-*' 'concurrency-*' 'performance-*'
  # Off: adjacent parameters of one type. The signatures it flags are the contract's and the
  # framework's (createEntity(typeName, name), the creators of PathSubscribeConfig, a trace
  # record's handle, class and function names); their order is the interface.
  '-bugprone-easily-swappable-parameters'
)
checks=$(IFS=,; echo "${CHECKS[*]}")

echo "-- clang-tidy: ${#SOURCES[@]} files"
tidy_log="$BUILD/clang-tidy.log"
printf '%s\n' "${SOURCES[@]}" |
  xargs -P"$JOBS" -I{} clang-tidy -p "$BUILD" --quiet --checks="$checks" \
    --header-filter="^$ROOT/(KelLib|platform|host)/" "$ROOT/{}" >"$tidy_log" 2>/dev/null || true
# A header's finding shows once per file that includes it.
mapfile -t tidy < <(grep -E '^/.*:[0-9]+:[0-9]+: (warning|error):' "$tidy_log" | sort -u || true)
printf '%s\n' "${tidy[@]/#$ROOT\//}" | sed '/^$/d'

echo "-- cppcheck"
# Off: virtualCallInConstructor. By contract a destructor switches its object's notification
# off first, through the virtual hasNotificationActiveIs; the call is meant to reach the
# destructor's own class, which is what it does. missingIncludeSystem: cppcheck is not given
# the system's headers; the compilers read those.
mapfile -t cpp < <(cd "$ROOT" && cppcheck --std=c++20 --language=c++ -j"$JOBS" --quiet --inline-suppr \
  --enable=warning,performance,portability -I platform -I . \
  --suppress=missingIncludeSystem --suppress=virtualCallInConstructor \
  --template='{file}:{line}:{column}: {severity}: {message} [{id}]' \
  KelLib platform host 2>&1 | grep -E '^[^ ].*:[0-9]+:[0-9]+: ' | sort -u || true)
printf '%s\n' "${cpp[@]}" | sed '/^$/d'

n_tidy=${#tidy[@]}
n_cpp=${#cpp[@]}
echo "static checks: $((n_tidy + n_cpp)) findings (clang-tidy ${n_tidy}, cppcheck ${n_cpp})"
((n_tidy + n_cpp == 0))
