#!/usr/bin/env bash
# Runs a command that must succeed and checks that its output holds every
# line of EXPECTED (as whole lines, blanks and all; empty lines skipped).
# Usage: check_lines.sh EXPECTED COMMAND...
set -uo pipefail
expected=$1
shift
output=$("$@" 2>&1)
status=$?
echo "$output"
if [ "$status" -ne 0 ]; then
  echo "exit status $status, expected 0" >&2
  exit 1
fi
missing=0
while IFS= read -r line; do
  [ -z "$line" ] && continue
  if ! grep -qxF -- "$line" <<<"$output"; then
    echo "missing line: \"$line\"" >&2
    missing=1
  fi
done <"$expected"
exit $missing
