#!/usr/bin/env bash
# Runs a file that must be refused or must fail and checks how.
# A scenario's first line reads "# expect: exit STATUS line LINE [text TEXT]":
# `script FILE` must end with that status and print "FILE:LINE: " (followed
# by TEXT when given). A bad profile (FILE.json, TEXT the third argument)
# must be refused by `modems FILE` and `demo --profile FILE` alike before
# anything runs: status 2, "FILE: TEXT" and no step of a session.
# Usage: check_bad.sh CDCACM_SIM FILE [TEXT]
set -uo pipefail
sim=$1
file=$2
if [[ $file == *.json ]]; then
  commands=("modems $file" "demo --profile $file")
  want_status=2
  want="$file: $3"
else
  header=$(head -n 1 "$file")
  if [[ ! $header =~ ^#\ expect:\ exit\ ([0-9]+)\ line\ ([0-9]+)(\ text\ (.*))?$ ]]; then
    echo "$file: the first line does not say what to expect" >&2
    exit 1
  fi
  commands=("script $file")
  want_status=${BASH_REMATCH[1]}
  want="$file:${BASH_REMATCH[2]}: ${BASH_REMATCH[4]:-}"
fi
for command in "${commands[@]}"; do
  output=$($sim $command 2>&1)
  status=$?
  echo "$ cdcacm-sim $command"
  echo "$output"
  if [ "$status" -ne "$want_status" ]; then
    echo "exit status $status, expected $want_status" >&2
    exit 1
  fi
  if ! grep -qF -- "$want" <<<"$output"; then
    echo "no \"$want\" in the output" >&2
    exit 1
  fi
  if [[ $file == *.json ]] && grep -q '^\[' <<<"$output"; then
    echo "a step ran although the profile was refused" >&2
    exit 1
  fi
done
