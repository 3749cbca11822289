#!/usr/bin/env bash
# Builds the library, the demo host, the collector and the fault-file decoder
# natively, runs the demo, collects from it over loopback, then decodes the
# fault file that the demo saved. The fault file is
# the board's /fcm.log when "/" is writable, else one in the build directory.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${DTKIT_DEMO_BUILD:-$root/build-demo}
fcm=/fcm.log
[ -w / ] || fcm=$dir/fcm.log
gen=()
command -v ninja >/dev/null && gen=(-G Ninja)
mkdir -p "$dir"
log=$dir/demo-build.log
cmake -S "$root" -B "$dir" "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDTKIT_TESTS=OFF \
  -DDTKIT_FAULT_FILE="$fcm" >"$log" 2>&1 || { cat "$log"; echo "demo.sh: configure failed" >&2; exit 1; }
cmake --build "$dir" -j2 --target dtkit_demo dtfcm dtcollect >"$log" 2>&1 \
  || { cat "$log"; echo "demo.sh: build failed" >&2; exit 1; }
echo "== fault file: $fcm"
# The demo stays up as a device for a while; dtcollect reads it over loopback.
run=$dir/demo-run.log
"$dir/examples/dtkit_demo" --serve 30 >"$run" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
for _ in $(seq 300); do
  grep -q 'collection agent on UDP port 9099' "$run" && break
  kill -0 $pid 2>/dev/null || break
  sleep 0.1
done
cat "$run"
grep -q 'collection agent on UDP port 9099' "$run" || { echo "demo.sh: the demo did not start its agent" >&2; exit 1; }
echo
echo "== collected by dtcollect from 127.0.0.1 =="
"$dir/tools/dtcollect/dtcollect" --timeout 5 127.0.0.1
kill $pid 2>/dev/null || true
echo
echo "== decoded by dtfcm (the library's own path, $fcm) =="
"$dir/tools/dtfcm/dtfcm"
