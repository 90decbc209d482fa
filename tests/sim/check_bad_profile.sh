#!/usr/bin/env bash
# A bad profile file is refused before anything runs: `modems FILE` and
# `demo --profile FILE` both exit with status 2, print "FILE: TEXT" and run
# no step of a session.
set -uo pipefail
sim=$1
profile=$2
want=$3
for command in "modems $profile" "demo --profile $profile"; do
  output=$($sim $command 2>&1)
  status=$?
  echo "$ cdcacm-sim $command"
  echo "$output"
  if [ "$status" -ne 2 ]; then
    echo "exit status $status, expected 2" >&2
    exit 1
  fi
  if ! grep -qF -- "$profile: $want" <<<"$output"; then
    echo "no \"$profile: $want\" in the output" >&2
    exit 1
  fi
  if grep -q '^\[' <<<"$output"; then
    echo "a step ran although the profile was refused" >&2
    exit 1
  fi
done
