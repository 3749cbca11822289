#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/*.cpp; clang with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for SECONDS (default 10), one at
# a time, from a scratch copy of its seed corpus fuzz/corpus/<target>/ (the
# committed seeds are never written to).
#   scripts/fuzz.sh [SECONDS]
# One line per target: its executions and the result. Exits non-zero on any
# crash, leak, timeout, memory blow-up or sanitizer report, naming the file
# that holds the input. Reproduce with: build-ci/fuzz/fuzz/<target> <that file>.
# Installs missing packages when run as root; otherwise names them and stops.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${DTKIT_BUILD_ROOT:-$root/build-ci}
dir=$out/fuzz
jobs=${DTKIT_JOBS:-2}

usage() { echo "usage: $0 [SECONDS]"; }
secs=10
case $# in
  0) ;;
  1)
    case $1 in
      -h|--help) usage; exit 0 ;;
      *[!0-9]*|'') secs=0 ;;
      *) secs=$((10#$1)) ;;
    esac
    # 0 would mean no time limit to libFuzzer.
    [ "$secs" -gt 0 ] || { echo "fuzz.sh: SECONDS must be a positive whole number, not '$1'" >&2; usage >&2; exit 2; } ;;
  *) usage >&2; exit 2 ;;
esac

# libFuzzer and the sanitizers' runtimes come in a package of their own,
# one per clang version, that installing clang does not bring along.
runtime_ok() {
  local rt
  rt=$(clang++ --print-runtime-dir 2>/dev/null) || return 1
  [ -f "$rt/libclang_rt.fuzzer-x86_64.a" ] && [ -f "$rt/libclang_rt.asan-x86_64.a" ]
}
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
if ! command -v clang++ >/dev/null; then
  need+=(clang libclang-rt-dev)
elif ! runtime_ok; then
  major=$(clang++ -dumpversion | cut -d. -f1)
  need+=("libclang-rt-$major-dev")
fi
. "$root/scripts/packages.sh"
install_missing fuzz.sh ${need[@]+"${need[@]}"}
runtime_ok || { echo "fuzz.sh: clang's libFuzzer runtime is still missing" >&2; exit 3; }

mkdir -p "$dir"
targets=()
for src in "$root"/fuzz/*.cpp; do
  t=$(basename "$src" .cpp)
  targets+=("$t")
done

# The targets never save faults; the fault file only has to be a path of this build's own.
echo "== fuzz: configure and build ${#targets[@]} targets"
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DDTKIT_FUZZ=ON -DDTKIT_SANITIZE=ON -DDTKIT_TESTS=OFF -DDTKIT_FAULT_FILE="$dir/fcm.log" \
  >"$out/fuzz.configure.log" 2>&1 || { cat "$out/fuzz.configure.log"; exit 1; }
cmake --build "$dir" -j"$jobs" --target "${targets[@]}" >"$out/fuzz.build.log" 2>&1 \
  || { grep -v '^\[' "$out/fuzz.build.log" | tail -n 80; echo "fuzz.sh: build failed"; exit 1; }

# Longest input tried: enough for several records or operations; never
# shorter than the longest seed, which would otherwise be cut.
max_len_for() {
  local t=$1 len=4096 seed
  case $t in
    fuzz_pack_format) len=512 ;;
    fuzz_info_ops) len=2048 ;;
    fuzz_collect_request|fuzz_config_reply|fuzz_dtconfigd_request) len=256 ;;
  esac
  for seed in "$root/fuzz/corpus/$t"/*; do
    [ -f "$seed" ] || continue
    local n
    n=$(wc -c <"$seed")
    [ "$n" -le "$len" ] || len=$n
  done
  echo "$len"
}

status=0
for t in "${targets[@]}"; do
  work=$dir/run/$t
  rm -rf "$work/corpus"
  mkdir -p "$work/corpus" "$work/found"
  if [ -d "$root/fuzz/corpus/$t" ]; then cp -r "$root/fuzz/corpus/$t/." "$work/corpus/"; fi
  log=$work/fuzz.log
  # Standard output is closed: the library's printing would only cost time.
  set +e
  "$dir/fuzz/$t" "$work/corpus" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 \
    -max_len="$(max_len_for "$t")" -close_fd_mask=1 -print_final_stats=1 \
    -artifact_prefix="$work/found/" >"$log" 2>&1
  rc=$?
  set -e
  runs=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -n 1)
  [ -n "$runs" ] || runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log" | tail -n 1)
  [ -n "$runs" ] || runs=0
  saved=$(sed -n 's/.*Test unit written to \(.*\)$/\1/p' "$log" | tail -n 1)
  if [ $rc = 0 ] && [ -z "$saved" ]; then
    echo "$t: $runs runs, ok"
    continue
  fi
  status=1
  if [ -n "$saved" ]; then
    case $(basename "$saved") in
      leak-*) what=LEAK ;;
      timeout-*) what=TIMEOUT ;;
      oom-*) what=OUT-OF-MEMORY ;;
      slow-unit-*) what=SLOW ;;
      *) what=CRASH ;;
    esac
    echo "$t: $runs runs, $what, input saved to $saved"
  else
    echo "$t: $runs runs, FAILED (exit $rc), no input saved"
  fi
  # The report itself, without libFuzzer's chatter; the whole of it stays in the log.
  grep -E '^(==[0-9]+==|SUMMARY|fuzz_[a-z_]+:|.*runtime error:|    #[0-9]+ )' "$log" \
    | grep -v -E 'fuzzer::|libc_start|in _start|in main ' | head -n 20 | sed 's/^/  /'
  echo "  log: $log"
done
exit $status
