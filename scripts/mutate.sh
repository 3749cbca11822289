#!/usr/bin/env bash
# Mutation testing of the committed tree: clones HEAD into a scratch folder
# (never the working tree: the tool rewrites sources), builds it, and runs
# mutate.py there with the fault file and the test guard's backups named as
# machine-wide state. Every other argument goes to mutate.py, e.g.
#   scripts/mutate.sh --files 'containers/*.cpp' --sample 40 --seed 1
#   scripts/mutate.sh --sample 300 --seed 2
# Without --tests-for, each mutant runs its own module's tests (auto).
# Environment: DTKIT_MUTATE_TOOL (mutate.py; default ../shared/tools/mutate.py
# beside the project), DTKIT_MUTATE_DIR (scratch folder; default
# /tmp/dtkit-mutate-$USER). Run it as root so that the namespace tests run
# rather than skip; it takes a private network namespace when it can, so that
# the fixed ports are its own. Long: minutes per hundred mutants.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tool=${DTKIT_MUTATE_TOOL:-$root/../shared/tools/mutate.py}
dir=${DTKIT_MUTATE_DIR:-/tmp/dtkit-mutate-${USER:-$(id -u)}}
[ -f "$tool" ] || { echo "mutate.sh: no mutation tool at $tool (set DTKIT_MUTATE_TOOL)" >&2; exit 2; }
case " $* " in *" --tests-for "*) auto=() ;; *) auto=(--tests-for auto) ;; esac

# A fresh clone and report each time: neither a mutant left behind by a
# killed run nor results of an older commit can leak in.
rm -rf "$dir/src" "$dir/report"
mkdir -p "$dir"
git clone -q "$root" "$dir/src"
cmake -S "$dir/src" -B "$dir/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DDTKIT_FAULT_FILE="$dir/build/fcm.log" >"$dir/configure.log"
cmake --build "$dir/build" -j"${DTKIT_JOBS:-2}" >"$dir/build.log"

run=(nice -n 10 python3 "$tool" --src "$dir/src" --build "$dir/build" "${auto[@]}"
  --state "$dir/build/fcm.log" --state "$dir/build/fcm.log.dtkit-test-*" --out "$dir/report" "$@")
if [ "$(id -u)" = 0 ] && unshare --net true 2>/dev/null; then
  unshare --net bash -c 'ip link set lo up && exec "$@"' mutate "${run[@]}"
else
  "${run[@]}"
fi
echo "mutate.sh: report in $dir/report/summary.md"
