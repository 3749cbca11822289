#!/usr/bin/env bash
# Builds the native tests with gcc's coverage instrumentation, runs them, and
# prints line and branch coverage of the library and the tools, one row per
# folder. Exits 1 when a test fails or the totals fall below the floors.
#   scripts/coverage.sh
# Floors (env DTKIT_COVERAGE_LINES / DTKIT_COVERAGE_BRANCHES override them):
# 90% of lines, 75% of branches. Branches that only exist for exception
# unwinding are not counted: the library is built without exceptions, and a
# tool's throw paths are the standard library's, not ours.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${DTKIT_BUILD_ROOT:-$root/build-ci}
dir=$out/coverage
jobs=${DTKIT_JOBS:-2}
min_lines=${DTKIT_COVERAGE_LINES:-90}
min_branches=${DTKIT_COVERAGE_BRANCHES:-75}
[ $# -eq 0 ] || { echo "usage: $0" >&2; exit 2; }

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v gcovr >/dev/null || need+=(gcovr)
command -v python3 >/dev/null || need+=(python3)
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest libgtest-dev)
. "$root/scripts/packages.sh"
install_missing coverage.sh ${need[@]+"${need[@]}"}

mkdir -p "$out"
if [ -w / ]; then fcm=/fcm.log; else fcm=$dir/fcm.log; fi
# Atomic counter updates: the tools run threads (the exporter's HTTP pool), and racing
# increments can leave a negative branch count that gcovr refuses to read.
flags="--coverage -fprofile-update=atomic"
echo "== coverage: configure and build"
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DDTKIT_FAULT_FILE="$fcm" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_SHARED_LINKER_FLAGS="$flags" >"$out/coverage.configure.log" 2>&1 \
  || { cat "$out/coverage.configure.log"; exit 1; }
cmake --build "$dir" -j"$jobs" >"$out/coverage.build.log" 2>&1 \
  || { grep -v '^\[' "$out/coverage.build.log" | tail -n 80; echo "coverage build failed"; exit 1; }
# Counts from an earlier run would be added to this one's.
find "$dir" -name '*.gcda' -delete
echo "== coverage: tests"
if ! (cd "$dir" && ctest -j"$jobs" --output-on-failure) >"$out/coverage.ctest.log" 2>&1; then
  grep -E -B2 -A40 '\*\*\*Failed|\*\*\*Exception|Timeout' "$out/coverage.ctest.log" | head -n 120
  echo "coverage: tests failed"; exit 1
fi

folders='foundation|containers|records|fault|collect|table|net|timer|platform|tools'
gcovr -r "$root" --object-directory "$dir" -f "$root/($folders)/" \
  --exclude-throw-branches --exclude-unreachable-branches \
  --json-summary "$out/coverage.json" >"$out/coverage.gcovr.log" 2>&1 \
  || { cat "$out/coverage.gcovr.log"; exit 1; }

python3 - "$out/coverage.json" "$min_lines" "$min_branches" <<'PY'
import collections, json, sys
data = json.load(open(sys.argv[1]))
floor_lines, floor_branches = float(sys.argv[2]), float(sys.argv[3])
rows = collections.OrderedDict()
for f in sorted(data["files"], key=lambda f: f["filename"]):
    parts = f["filename"].split("/")
    key = "/".join(parts[:2]) if parts[0] == "tools" and len(parts) > 2 else parts[0]
    r = rows.setdefault(key, [0, 0, 0, 0])
    r[0] += f["line_covered"]; r[1] += f["line_total"]
    r[2] += f["branch_covered"]; r[3] += f["branch_total"]
def pct(c, t):
    return 100.0 * c / t if t else 100.0
print("%-16s %16s %16s" % ("folder", "lines", "branches"))
total = [0, 0, 0, 0]
for key, r in rows.items():
    total = [a + b for a, b in zip(total, r)]
    print("%-16s %6.1f%% %4d/%-4d %6.1f%% %4d/%-4d" % (key, pct(r[0], r[1]), r[0], r[1], pct(r[2], r[3]), r[2], r[3]))
lines, branches = pct(total[0], total[1]), pct(total[2], total[3])
low = lines < floor_lines or branches < floor_branches
if low:
    print("below the floors: lines %g%%, branches %g%%" % (floor_lines, floor_branches))
print("coverage: lines %.1f%% branches %.1f%%" % (lines, branches))
sys.exit(1 if low else 0)
PY
