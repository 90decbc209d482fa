#!/usr/bin/env bash
# Runs a scenario that must be refused or must fail and checks how: its
# first line reads "# expect: exit STATUS line LINE [text TEXT]", and the
# run must end with that status and print "FILE:LINE: " (followed by TEXT
# when given).
set -uo pipefail
sim=$1
scenario=$2
header=$(head -n 1 "$scenario")
if [[ ! $header =~ ^#\ expect:\ exit\ ([0-9]+)\ line\ ([0-9]+)(\ text\ (.*))?$ ]]; then
  echo "$scenario: the first line does not say what to expect" >&2
  exit 1
fi
want_status=${BASH_REMATCH[1]}
want_line=${BASH_REMATCH[2]}
want_text=${BASH_REMATCH[4]:-}
output=$("$sim" script "$scenario" 2>&1)
status=$?
echo "$output"
if [ "$status" -ne "$want_status" ]; then
  echo "exit status $status, expected $want_status" >&2
  exit 1
fi
if ! grep -qF -- "$scenario:$want_line: $want_text" <<<"$output"; then
  echo "no \"$scenario:$want_line: $want_text\" in the output" >&2
  exit 1
fi
echo "exit status $status and line $want_line as expected"
