#!/usr/bin/env bash
# Runs every test in three builds: native, native with AddressSanitizer and
# UndefinedBehaviorSanitizer, and cross-built for the 32-bit big-endian
# PowerPC target under qemu-ppc. Installs what is missing (needs root).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${DTKIT_BUILD_ROOT:-$root/build-ci}
jobs=${DTKIT_JOBS:-2}

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v pkg-config >/dev/null || need+=(pkg-config)
command -v powerpc-linux-gnu-g++ >/dev/null || need+=(g++-powerpc-linux-gnu)
command -v qemu-ppc >/dev/null || need+=(qemu-user)
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest libgtest-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "== installing: ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

total_pass=0; total_fail=0; status=0
leg() {
  local name=$1; shift
  local dir=$out/$name
  echo "== leg $name: configure and build"
  local t0=$SECONDS
  cmake -S "$root" -B "$dir" -G Ninja "$@" >"$out/$name.configure.log" 2>&1 \
    || { cat "$out/$name.configure.log"; return 1; }
  cmake --build "$dir" -j"$jobs" >"$out/$name.build.log" 2>&1 \
    || { grep -v '^\[' "$out/$name.build.log" | tail -n 80; echo "build failed"; return 1; }
  echo "== leg $name: tests"
  local log=$out/$name.ctest.log
  set +e
  (cd "$dir" && ctest -j"$jobs" --output-on-failure) >"$log" 2>&1
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

mkdir -p "$out"
leg native -DCMAKE_BUILD_TYPE=RelWithDebInfo || status=1
# The demo is part of the test run: a broken demo, or a fault file that the
# decoder cannot read, fails it. Whatever /fcm.log was there is put back.
echo "== demo smoke run"
saved_fcm=""
if [ -e /fcm.log ]; then saved_fcm=$(mktemp); cp -p /fcm.log "$saved_fcm"; fi
if (cd "$out/native" && ./examples/dtkit_demo && ./tools/dtfcm/dtfcm /fcm.log) >"$out/demo.log" 2>&1; then
  echo "demo ran: $(wc -l <"$out/demo.log") lines, fault file decoded"
else
  tail -n 40 "$out/demo.log"; echo "demo failed"; status=1; total_fail=$((total_fail + 1))
fi
rm -f /fcm.log
if [ -n "$saved_fcm" ]; then mv "$saved_fcm" /fcm.log; fi
leg asan -DCMAKE_BUILD_TYPE=Debug -DDTKIT_SANITIZE=ON || status=1
leg ppc -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/powerpc-linux-gnu.cmake" || status=1

echo "dtkit: $total_pass passed, $total_fail failed"
exit $status
