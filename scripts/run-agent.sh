#!/usr/bin/env bash
# Builds the module and the host program (RelWithDebInfo, in build/) and runs three agents
# on loopback that mirror one another (scripts/demo-agents.sh). With arguments, runs one
# agent with them instead (a script of commands, say: host/example.q7).
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
BUILD="$ROOT/build"

bash "$ROOT/scripts/setup.sh"

if [[ -f "$BUILD/CMakeCache.txt" ]] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$BUILD/CMakeCache.txt"; then
  echo "run-agent: build/ was configured with another generator; starting it afresh"
  rm -rf "$BUILD"
fi
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQ7_SANITIZE= -DQ7_TESTS=OFF -DQ7_FUZZ=OFF -DQ7_BENCH=OFF >/dev/null
ninja -C "$BUILD" -j2

AGENT=build/host/q7agent
if [[ ! -x "$AGENT" ]]; then
  if [[ ! -f "$ROOT/host/CMakeLists.txt" ]]; then
    echo "run-agent: the host program is not part of the tree yet (no host/CMakeLists.txt)" >&2
  else
    echo "run-agent: the build did not produce $AGENT" >&2
  fi
  exit 1
fi
if (($#)); then
  exec "$AGENT" "$@"
fi
exec bash "$ROOT/scripts/demo-agents.sh" "$AGENT"
