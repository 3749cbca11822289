#!/usr/bin/env bash
# Builds the library, the demo host and the fault-file decoder natively, runs
# the demo, then decodes the fault file that the demo saved. The fault file is
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
cmake --build "$dir" -j2 --target dtkit_demo dtfcm >"$log" 2>&1 \
  || { cat "$log"; echo "demo.sh: build failed" >&2; exit 1; }
echo "== fault file: $fcm"
"$dir/examples/dtkit_demo"
echo
echo "== decoded by dtfcm (the library's own path, $fcm) =="
"$dir/tools/dtfcm/dtfcm"
