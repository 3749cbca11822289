#!/usr/bin/env bash
# Builds the library, the demo host and the fault-file decoder natively, runs
# the demo, then decodes the fault file that the demo saved.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${DTKIT_DEMO_BUILD:-$root/build-demo}
gen=()
command -v ninja >/dev/null && gen=(-G Ninja)
cmake -S "$root" -B "$dir" "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDTKIT_TESTS=OFF >/dev/null
cmake --build "$dir" -j2 --target dtkit_demo dtfcm >/dev/null
"$dir/examples/dtkit_demo"
echo
echo "== decoded by dtfcm =="
"$dir/tools/dtfcm/dtfcm" /fcm.log
