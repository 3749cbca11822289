#!/bin/sh
# Renders each manual page with every groff warning on; any warning, a page
# that will not render, or a page without one of the sections every page of
# this project has, fails.
set -u
status=0
for page in "$@"; do
  name=$(basename "$page")
  warnings=$(groff -man -ww -z "$page" 2>&1) || { echo "$name: groff failed"; status=1; }
  if [ -n "$warnings" ]; then
    echo "$name: groff warns:"; echo "$warnings"; status=1
  fi
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" EXAMPLES; do
    grep -q "^\.SH $section\$" "$page" || { echo "$name: no $section section"; status=1; }
  done
done
[ $# -gt 0 ] || { echo "no pages given"; status=1; }
exit $status
