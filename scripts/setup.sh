#!/usr/bin/env bash
# Installs, with apt-get, whatever this Debian 12 machine lacks to build and
# test the project. Prints nothing when everything is already there.
# Arguments name further packages that one script needs (scripts/coverage.sh: gcovr).
set -euo pipefail

PACKAGES=(
  cmake ninja-build pkg-config
  g++ clang
  libclang-rt-14-dev   # clang's ASan/UBSan/TSan/libFuzzer runtimes
  llvm                 # llvm-symbolizer: sanitizer reports with file:line
  libfmt-dev
  libmimalloc-dev      # counted objects and strings come from it (README, Libraries)
  libgtest-dev libgmock-dev
  libbenchmark-dev
  libabsl-dev          # scripts/bench.sh builds the reference's lean program, which uses it
  valgrind bc          # instruction counts (callgrind) in scripts/bench.sh and the reference
  libcli11-dev         # the host program's option parsing
  libasio-dev          # the event loop: sockets, timers and the host's input (README, Libraries)
  libprotobuf-dev protobuf-compiler  # the sync protocol's messages and framing
  libssl-dev openssl   # mutual TLS between agents; the run command and tests make a throwaway authority
  iproute2             # ss: the tests look at the connections agents hold
)
PACKAGES+=("$@")

missing=()
for pkg in "${PACKAGES[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  if [[ "$status" != "install ok installed" ]]; then
    missing+=("$pkg")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

if [[ $(id -u) -eq 0 ]]; then
  as_root=()
elif command -v sudo >/dev/null 2>&1; then
  as_root=(sudo)
else
  echo "setup: missing packages: ${missing[*]}" >&2
  echo "setup: not root and no sudo; install them as root and rerun." >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt_opts=(-q -o Dpkg::Use-Pty=0 -o DPkg::Lock::Timeout=300)
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${apt_opts[@]}" update
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${apt_opts[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null
echo "setup: done"
