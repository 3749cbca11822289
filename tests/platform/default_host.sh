#!/bin/sh
# Runs default_host (COMMAND...) with its output in a file, so that standard
# output is fully buffered, and checks that the console text got out.
tmp=$(mktemp) || exit 1
"$@" >"$tmp"
rc=$?
out=$(cat "$tmp")
rm -f "$tmp"
[ "$rc" = 0 ] && [ "$out" = "default console" ] && echo "default platform layer: ok" && exit 0
echo "exit status $rc, console text [$out]"
exit 1
