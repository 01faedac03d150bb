#!/usr/bin/env bash
# Renders every manual page with all warnings on; any warning fails.
set -euo pipefail
status=0
for page in "$@"; do
  out=$(groff -ww -z -t -man "$page" 2>&1) || status=1
  if [ -n "$out" ]; then
    echo "$page:"; echo "$out"; status=1
  fi
done
exit $status
