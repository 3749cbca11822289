#!/usr/bin/env bash
# Runs every test in three builds ("legs"): native, native with
# AddressSanitizer and UndefinedBehaviorSanitizer, and cross-built for the
# 32-bit big-endian PowerPC target under qemu-ppc. The tools' tests (the
# collector core, dtcollect, dtkit_exporter and the rest of tests/tools) run
# once more under ThreadSanitizer (leg tsan). Then two more legs: the
# native tests with coverage, held to its floors (scripts/coverage.sh), and
# every fuzz target for a few seconds (scripts/fuzz.sh; DTKIT_FUZZ_SECONDS,
# default 3). Last the package leg (scripts/package.sh): the Debian packages,
# lintian, and as root their installation, use and removal on this machine.
#   scripts/test.sh                 every leg, as CI does
#   scripts/test.sh --leg native    one leg: native, asan, ppc, tsan, coverage, fuzz or package
# Installs missing packages when run as root; otherwise names them and stops.
# The fault file is the board's /fcm.log when "/" is writable, else a file in
# each leg's build directory.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${DTKIT_BUILD_ROOT:-$root/build-ci}
jobs=${DTKIT_JOBS:-2}

usage() { echo "usage: $0 [--leg native|asan|ppc|tsan|coverage|fuzz|package]"; }
legs=(native asan ppc tsan coverage fuzz package)
while [ $# -gt 0 ]; do
  case $1 in
    --leg)
      [ $# -ge 2 ] || { echo "test.sh: --leg needs a leg name" >&2; usage >&2; exit 2; }
      case $2 in
        native|asan|ppc|tsan|coverage|fuzz|package) legs=("$2") ;;
        *) echo "test.sh: unknown leg '$2'" >&2; usage >&2; exit 2 ;;
      esac
      shift 2 ;;
    -h|--help) usage; exit 0 ;;
    *) echo "test.sh: unknown argument '$1'" >&2; usage >&2; exit 2 ;;
  esac
done
wants() { [[ " ${legs[*]} " == *" $1 "* ]]; }

# ip may live in an sbin folder that an ordinary user's PATH leaves out.
have_ip() { command -v ip >/dev/null || [ -x /sbin/ip ] || [ -x /usr/sbin/ip ]; }
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v pkg-config >/dev/null || need+=(pkg-config)
have_ip || need+=(iproute2)
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest libgtest-dev)
# dtkit_exporter's HTTP library, and the real Prometheus and promtool its tests run.
[ -f /usr/include/httplib.h ] || need+=(libcpp-httplib-dev)
command -v prometheus >/dev/null || need+=(prometheus)
# Manual pages (built and rendered by the tests) and the dissector's tests.
command -v scdoc >/dev/null || need+=(scdoc)
command -v groff >/dev/null || need+=(groff-base)
command -v tshark >/dev/null || need+=(tshark)
if wants ppc; then
  command -v powerpc-linux-gnu-g++ >/dev/null || need+=(g++-powerpc-linux-gnu)
  command -v qemu-ppc >/dev/null || need+=(qemu-user)
fi
. "$root/scripts/packages.sh"
install_missing test.sh ${need[@]+"${need[@]}"}

# The fault file a leg's library writes, its tests check, and the demo decodes.
fault_file() {
  if [ -w / ]; then echo /fcm.log; else echo "$out/$1/fcm.log"; fi
}

total_pass=0; total_fail=0; status=0
# A leg that needs only some of the build names its targets and ctest arguments here.
leg_targets=(); leg_ctest=()
leg() {
  local name=$1; shift
  local dir=$out/$name
  local fcm
  fcm=$(fault_file "$name")
  echo "== leg $name: configure and build (fault file $fcm)"
  local t0=$SECONDS
  cmake -S "$root" -B "$dir" -G Ninja -DDTKIT_FAULT_FILE="$fcm" "$@" >"$out/$name.configure.log" 2>&1 \
    || { cat "$out/$name.configure.log"; return 1; }
  cmake --build "$dir" -j"$jobs" ${leg_targets[@]+--target "${leg_targets[@]}"} >"$out/$name.build.log" 2>&1 \
    || { grep -v '^\[' "$out/$name.build.log" | tail -n 80; echo "build failed"; return 1; }
  echo "== leg $name: tests"
  local log=$out/$name.ctest.log
  set +e
  (cd "$dir" && ctest -j"$jobs" --output-on-failure ${leg_ctest[@]+"${leg_ctest[@]}"}) >"$log" 2>&1
  local rc=$?
  set -e
  grep -E -A200 'tests passed|The following tests FAILED' "$log" | head -n 60
  [ $rc = 0 ] || grep -E -B2 -A40 '\*\*\*Failed|\*\*\*Exception|Timeout' "$log" | head -n 200
  local line ran failed
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)
  failed=$(echo "$line" | sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/')
  ran=$(echo "$line" | sed -E 's/.*out of ([0-9]+).*/\1/')
  [ -n "$line" ] || { failed=1; ran=1; }
  total_pass=$((total_pass + ran - failed)); total_fail=$((total_fail + failed))
  echo "== leg $name: $((ran - failed)) passed, $failed failed ($((SECONDS - t0)) s)"
  return $rc
}

# The demo is part of the test run: a broken demo, or a fault file that the
# decoder (reading the library's own path, no FILE given) cannot read, fails
# it. Whatever fault file was there is put back.
demo() {
  local fcm saved_fcm=""
  fcm=$(fault_file native)
  echo "== demo smoke run (fault file $fcm)"
  if [ -e "$fcm" ]; then saved_fcm=$(mktemp); cp -p "$fcm" "$saved_fcm"; fi
  if (cd "$out/native" && ./examples/dtkit_demo && ./tools/dtfcm/dtfcm) >"$out/demo.log" 2>&1; then
    echo "demo ran: $(wc -l <"$out/demo.log") lines, fault file decoded"
  else
    tail -n 40 "$out/demo.log"; echo "demo failed"; status=1; total_fail=$((total_fail + 1))
  fi
  rm -f "$fcm"
  if [ -n "$saved_fcm" ]; then mv "$saved_fcm" "$fcm"; fi
}

mkdir -p "$out"
if wants native; then
  leg native -DCMAKE_BUILD_TYPE=RelWithDebInfo || status=1
  demo
fi
if wants asan; then
  leg asan -DCMAKE_BUILD_TYPE=Debug -DDTKIT_SANITIZE=ON || status=1
fi
if wants ppc; then
  leg ppc -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/powerpc-linux-gnu.cmake" || status=1
fi
# The tools run threads (dtkit_exporter's HTTP workers and the core's loop;
# the tests' agents): their tests again, every program they start included,
# built with ThreadSanitizer, which stops a program at its first report.
if wants tsan; then
  leg_targets=(dtkit_tools_tests); leg_ctest=(-L '^tools$')
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" leg tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS=-fsanitize=thread -DCMAKE_CXX_FLAGS=-fsanitize=thread \
    -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread || status=1
  leg_targets=(); leg_ctest=()
fi

# A script leg counts as one check: it passes or it fails.
script_leg() {
  local name=$1; shift
  echo "== leg $name"
  local t0=$SECONDS
  if "$@"; then
    total_pass=$((total_pass + 1)); echo "== leg $name: passed ($((SECONDS - t0)) s)"
  else
    total_fail=$((total_fail + 1)); status=1; echo "== leg $name: failed ($((SECONDS - t0)) s)"
  fi
}
if wants coverage; then
  script_leg coverage "$root/scripts/coverage.sh"
fi
if wants fuzz; then
  script_leg fuzz "$root/scripts/fuzz.sh" "${DTKIT_FUZZ_SECONDS:-3}"
fi
# Installs packages on this machine and removes them: alone, and last.
if wants package; then
  script_leg package "$root/scripts/package.sh"
fi

echo "dtkit: $total_pass passed, $total_fail failed"
exit $status
