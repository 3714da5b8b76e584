#!/usr/bin/env bash
# Line coverage of the module (KelLib/) and the framework layer (platform/) by the whole test
# suite, measured with gcovr on a g++ --coverage build in build-cov/. Prints the table per file,
# the lines still missed on the paths that must be covered completely, and last:
#   coverage: module M% (a/b), framework F% (c/d) of lines; parsers, release and dedup-removal paths P% (e/f)
# Exits non-zero when the module or the framework is under 90%, or a path is under 100%.
#
# The paths are the text parsers and what runs when a subscription or a request goes: the
# functions named in PATHS below, each with the lambdas defined in it. A line that only calls
# Wex::lifecycleFailure is left out of them: the death tests that reach it end in abort(),
# which writes no coverage data.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROOT=$(pwd)
BUILD="$ROOT/build-cov"
JOBS=2

bash "$ROOT/scripts/setup.sh" gcovr

if [[ -f "$BUILD/CMakeCache.txt" ]] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$BUILD/CMakeCache.txt"; then
  rm -rf "$BUILD"
fi
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=Debug \
  -DQ7_COVERAGE=ON -DQ7_SANITIZE= -DQ7_TESTS=ON -DQ7_THREAD_TESTS_ONLY=OFF -DQ7_FUZZ=OFF >/dev/null
ninja -C "$BUILD" -j"$JOBS"

# Counters of an earlier run would add up with this one's.
find "$BUILD" -name '*.gcda' -delete
ctest --test-dir "$BUILD" -j"$JOBS" --timeout 600 --output-on-failure >"$BUILD/ctest-output.log" 2>&1 || {
  tail -n 40 "$BUILD/ctest-output.log"
  echo "error: the test suite failed; no coverage figure" >&2
  exit 1
}

gcovr -r "$ROOT" --object-directory "$BUILD" --filter 'KelLib/' --filter 'platform/' \
  --json "$BUILD/coverage.json" --txt "$BUILD/coverage.txt" >/dev/null
cat "$BUILD/coverage.txt"

python3 - "$BUILD/coverage.json" "$ROOT" <<'EOF'
import json, re, sys

# (file, demangled name matched from its start); a lambda defined in a function matches with it.
PATHS = {
    "parsers": [
        ("platform/Wex/CharRange.cpp", r""),
        ("platform/Kivu/IpGenAddr.cpp", r"Kivu::sequenceToValue|Kivu::IpGenAddr::fromString"),
        ("platform/Q7Sync/Flags.cpp", r"Q7Sync::sequenceToValue|Q7Sync::\(anonymous namespace\)::bitOf"),
        ("KelLib/Q7SyncListenConfig.cpp", r"Kel::Q7Sync::ListenConfig::ListenConfig\(Wex::CharRange&\)"),
        ("KelLib/Q7SyncSubscribeRequest.cpp", r"Kel::Q7Sync::PathSubscribeConfig::PathSubscribeConfig\(Wex::CharRange&\)"),
    ],
    "release": [
        ("platform/Wex/PtrInterface.", r"Wex::PtrInterface::(deleteRef|zeroReferencesIs|~PtrInterface)"),
        ("platform/Lumo/Ptr.h", r"Lumo::Ptr<.*>::~Ptr"),
        ("platform/Wex/Entity.cpp", r"Wex::Dir::deleteEntity"),
        ("platform/Q7Sync/Service.cpp", r"Q7Sync::(Service|WexUtils)::unsubscribe"),
        ("KelLib/Q7SyncSubscribeSm.cpp",
         r"Kel::Q7Sync::(SyncContainerSm::(removeContainer|agentDirDelIfEmpty)"
         r"|SyncContainerStatus::syncContainerDel\("
         r"|SubscribeSm::(unsubscribe|q7SyncStatusDel\(|handlePathSubscribeConfig\(Kel)"
         r"|SyncContainerHandlerSm::(handleSyncContainer\(|replay|withdrawContainer))"),
    ],
    "dedup removal": [
        ("platform/Oru/Dedup.cpp",
         r"Oru::(DedupHandleBase::zeroReferencesIs|DedupHashTableUnorderedSet::handleZeroReferences"
         r"|DedupHashTable::notifyRemove)"),
        ("KelLib/Q7SyncSubscribeSm.cpp",
         r"Kel::Q7Sync::PathSubscribeRequestNotifiee::(handleRemove|removeRequestFromSet|drainPendingRequests"
         r"|handleRequest)"),
        ("KelLib/Q7SyncSubscribeRequest.cpp",
         r"Kel::Q7Sync::(PathSubscribeRequest::(lifeTimeNotifierIs|~PathSubscribeRequest)"
         r"|PathSubscribeRequestLifeTimeNotifier::~PathSubscribeRequestLifeTimeNotifier)"),
    ],
}

report, root = json.load(open(sys.argv[1])), sys.argv[2]
totals = {"KelLib/": [0, 0], "platform/": [0, 0]}
path_lines = {name: {} for name in PATHS}   # (file, line) -> count
for f in report["files"]:
    name = f["file"]
    code = [l for l in f["lines"] if not l.get("gcovr/noncode") and not l.get("gcovr/excluded")]
    for prefix, t in totals.items():
        if name.startswith(prefix):
            t[0] += sum(1 for l in code if l["count"] > 0)
            t[1] += len(code)
    counts = {l["line_number"]: l["count"] for l in code}
    text = open(f"{root}/{name}").read().split("\n")
    starts = sorted({fn["lineno"] for fn in f.get("functions", [])})
    for fn in f.get("functions", []):
        for path, patterns in PATHS.items():
            if not any(name.startswith(file) and re.match(p, fn["name"]) for file, p in patterns):
                continue
            following = [s for s in starts if s > fn["lineno"]]
            end = following[0] if following else len(text) + 1
            for n in range(fn["lineno"], end):
                if n in counts and "lifecycleFailure(" not in text[n - 1]:
                    path_lines[path][(name, n)] = counts[n]

ok = True
def pct(a, b):
    return 100.0 * a / b if b else 0.0
for prefix, (hit, all_) in totals.items():
    if pct(hit, all_) < 90.0:
        ok = False
        print(f"{prefix}: {pct(hit, all_):.1f}% of lines, under 90%")
path_hit = path_all = 0
for path, lines in path_lines.items():
    hit = sum(1 for c in lines.values() if c > 0)
    path_hit, path_all = path_hit + hit, path_all + len(lines)
    print(f"{path}: {hit}/{len(lines)} lines")
    for (name, n), c in sorted(lines.items()):
        if c == 0:
            ok = False
            print(f"  missed {name}:{n}")
    if not lines:
        ok = False
        print(f"  no function matched: the list in scripts/coverage.sh is out of date")
(mh, ma), (fh, fa) = totals["KelLib/"], totals["platform/"]
print(f"coverage: module {pct(mh, ma):.1f}% ({mh}/{ma}), framework {pct(fh, fa):.1f}% ({fh}/{fa}) of lines; "
      f"parsers, release and dedup-removal paths {pct(path_hit, path_all):.1f}% ({path_hit}/{path_all})")
sys.exit(0 if ok else 1)
EOF
