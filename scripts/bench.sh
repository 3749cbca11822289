#!/usr/bin/env bash
# Builds the benchmarks in Release and prints one line per pair: the
# library's figure, the peer's figure from the same run, and their ratio.
# Then builds libdtkit.so for the board at -O2 and -Os and prints its size.
#   scripts/bench.sh                 every bench, then the board sizes
#   BENCH_REPS=9 scripts/bench.sh    repetitions per benchmark (best one counts)
#   BENCH_FILTER=Hash scripts/bench.sh   only benchmarks whose name matches
#   BENCH_SIZE=0 scripts/bench.sh    skip the board builds
#   BENCH_TIMEOUT=900                seconds one bench binary may run
# The fleet benchmark (bench/fleet/, filter name "Fleet") runs dtcollect against
# 10,000 devices simulated by dtsim and prints its figures and targets; a missed
# target is reported, a run that breaks fails the script.
# Installs missing packages when run as root; otherwise names them and stops.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${DTKIT_BUILD_ROOT:-$root/build-bench}
jobs=${DTKIT_JOBS:-2}
reps=${BENCH_REPS:-5}
filter=${BENCH_FILTER:-.}
size=${BENCH_SIZE:-1}
limit=${BENCH_TIMEOUT:-900}

case $limit in
  ''|*[!0-9]*|0) echo "bench.sh: BENCH_TIMEOUT must be a positive whole number, not '$limit'" >&2; exit 2 ;;
esac
case $reps in
  ''|*[!0-9]*|0) echo "bench.sh: BENCH_REPS must be a positive whole number, not '$reps'" >&2; exit 2 ;;
esac
[ $# -eq 0 ] || { echo "bench.sh: takes no arguments (settings are BENCH_REPS, BENCH_FILTER, BENCH_SIZE)" >&2; exit 2; }

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v python3 >/dev/null || need+=(python3)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
[ -f /usr/include/spdlog/spdlog.h ] || need+=(libspdlog-dev)
[ -f /usr/include/openssl/md5.h ] || need+=(libssl-dev)
if [ "$size" != 0 ]; then
  command -v powerpc-linux-gnu-g++ >/dev/null || need+=(g++-powerpc-linux-gnu)
fi
. "$root/scripts/packages.sh"
install_missing bench.sh ${need[@]+"${need[@]}"}

echo "== building the benchmarks (Release)"
# The crash-save benchmark writes the fault file: its own, never the board's.
cmake -S "$root" -B "$out/bench" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DDTKIT_BENCH=ON -DDTKIT_TESTS=OFF -DDTKIT_FAULT_FILE="$out/bench/fcm.log" >/dev/null
benches=()
for src in "$root"/bench/*.cpp; do benches+=("$(basename "$src" .cpp)"); done
fleet=0
if echo Fleet | grep -Eq -- "$filter"; then fleet=1; fi
targets=("${benches[@]}")
[ "$fleet" = 0 ] || targets+=(bench_fleet)
cmake --build "$out/bench" --target "${targets[@]}" -j"$jobs" >/dev/null

# One line per pair BM_<Path>_dtkit / BM_<Path>_peer: the best (lowest) of
# the repetitions of each, in ns per iteration. CPU time counts, except for
# benchmarks that asked for real time (they wait on sockets or files).
report() {
  python3 - "$@" <<'EOF'
import json, sys
scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
best = {}
for path in sys.argv[1:]:
    with open(path) as f:
        data = json.load(f)
    for b in data.get("benchmarks", []):
        if b.get("run_type", "iteration") != "iteration" or "error_occurred" in b:
            continue
        name = b["run_name"] if "run_name" in b else b["name"]
        real = name.endswith("/real_time")
        base = name.split("/")[0]
        t = (b["real_time"] if real else b["cpu_time"]) * scale[b.get("time_unit", "ns")]
        if base not in best or t < best[base]:
            best[base] = t
pairs = sorted({n[:-len("_dtkit")] for n in best if n.endswith("_dtkit")})
bad = 0
for p in pairs:
    peer = best.get(p + "_peer")
    if peer is None:
        print("%-22s %14.1f %14s %8s" % (p[3:], best[p + "_dtkit"], "-", "-"))
        bad = 1
        continue
    d = best[p + "_dtkit"]
    print("%-22s %14.1f %14.1f %7.2fx" % (p[3:], d, peer, d / peer))
sys.exit(bad)
EOF
}

echo "== running (best of $reps repetitions; the library's standard output goes to /dev/null)"
jsons=()
status=0
for b in "${benches[@]}"; do
  json="$out/bench/$b.json"
  rm -f "$json"
  # A bench that waits on a port someone else holds must not hang the run.
  if ! timeout "$limit" "$out/bench/bench/$b" --benchmark_filter="$filter" \
      --benchmark_repetitions="$reps" --benchmark_out="$json" --benchmark_out_format=json \
      >/dev/null 2>"$out/bench/$b.err"; then
    echo "bench.sh: $b failed or ran past ${limit}s; its messages:" >&2
    cat "$out/bench/$b.err" >&2
    status=1
    continue
  fi
  # A filter that matches nothing in this binary leaves the file empty.
  [ ! -s "$json" ] || jsons+=("$json")
done
[ ${#jsons[@]} -gt 0 ] || [ "$fleet" = 1 ] || { echo "bench.sh: no benchmark results (filter '$filter')" >&2; exit 1; }
if [ ${#jsons[@]} -gt 0 ]; then
  printf '%-22s %14s %14s %8s\n' pair "dtkit ns" "peer ns" ratio
  report "${jsons[@]}" || status=1
fi

if [ "$fleet" = 1 ]; then
  echo "== fleet: 10,000 simulated devices, 5 ms before each message, dtcollect --parallel 1000"
  # dtsim binds UDP port 9099 on every address: in a network namespace of
  # its own when one can be made (as root), else in the machine's.
  run=("$out/bench/bench/bench_fleet")
  if unshare --net true 2>/dev/null; then
    run=(unshare --net sh -c 'ip link set lo up && exec "$0"' "${run[@]}")
  fi
  rc=0
  timeout "$limit" "${run[@]}" || rc=$?
  [ "$rc" -le 1 ] || { echo "bench.sh: the fleet benchmark broke (exit $rc)" >&2; status=1; }
fi

[ "$size" != 0 ] || exit $status
echo "== libdtkit.so for the board (powerpc-linux-gnu), text size"
for opt in O2 Os; do
  dir="$out/ppc-$opt"
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-$opt -DNDEBUG" -DCMAKE_C_FLAGS_RELEASE="-$opt -DNDEBUG" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/powerpc-linux-gnu.cmake" -DDTKIT_TESTS=OFF >/dev/null
  cmake --build "$dir" --target dtkit -j"$jobs" >/dev/null
  lib=$(find "$dir" -maxdepth 1 -name 'libdtkit.so*' -type f | head -n 1)
  [ -n "$lib" ] || { echo "bench.sh: no libdtkit.so in $dir" >&2; exit 1; }
  powerpc-linux-gnu-size "$lib" | awk -v opt="-$opt" \
    'NR == 2 { printf "%-4s text %.1f KiB (data %d B, bss %d B)\n", opt, $1 / 1024, $2, $3 }'
done
exit $status
