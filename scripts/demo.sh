#!/usr/bin/env bash
# Builds the library and the demo host natively and runs the demo.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${DTKIT_DEMO_BUILD:-$root/build-demo}
gen=()
command -v ninja >/dev/null && gen=(-G Ninja)
cmake -S "$root" -B "$dir" "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDTKIT_TESTS=OFF >/dev/null
cmake --build "$dir" -j2 --target dtkit_demo >/dev/null
"$dir/examples/dtkit_demo"
