#!/usr/bin/env bash
# Runs the driver's test programs under many seeds of the interleaving mode
# and prints, for a failing run, the command that replays it exactly.
#
#   bash scripts/campaign.sh [--seeds N] [--first S] [--cpus 1|2] [--filter GTEST_FILTER]
#
# Defaults: 200 seeds from 1, two processors, every test. Uses the host-asan
# build (built first when missing). Exit status 1 when any run failed.
set -uo pipefail
cd "$(dirname "$0")/.."

seeds=200 first=1 cpus=2 filter='*'
while [ $# -gt 0 ]; do
  case "$1" in
    --seeds) seeds=$2; shift 2 ;;
    --first) first=$2; shift 2 ;;
    --cpus) cpus=$2; shift 2 ;;
    --filter) filter=$2; shift 2 ;;
    *) echo "campaign: unknown option '$1'" >&2; exit 2 ;;
  esac
done

build=build/host-asan
if [ ! -d "$build" ]; then
  cmake --preset host-asan >/dev/null && cmake --build --preset host-asan -j"$(nproc)" || exit 2
fi
# The race tests loop over their own seeds; every other driver test program,
# the bus's (its PnP and power answers run on several worker threads) and
# the COM port's through the Win32 calls, runs once per seed here.
mapfile -t programs < <( (find "$build/tests/cdcacm" -mindepth 2 -maxdepth 2 -type f -executable \
  ! -path '*/races/*'; find "$build/tests/hostusb" -maxdepth 1 -type f -name 'hostusb_tests'
  find "$build/tests/comm" -maxdepth 1 -type f -name 'comm_tests') | sort)
[ ${#programs[@]} -gt 0 ] || { echo "campaign: no test programs under $build" >&2; exit 2; }

mode="cpus=$cpus,workers=3,jump_us=100"
log=$(mktemp -d)
trap 'rm -rf "$log"' EXIT

# One run: a program under one seed. Prints a report when it fails.
run() {
  local seed=$1 program=$2 out
  out="$log/$(basename "$program").$seed"
  if HK_SEED=$seed HK_INTERLEAVE=$mode timeout 300 "$program" --gtest_filter="$filter" \
      >"$out" 2>&1; then
    return 0
  fi
  local failed
  failed=$(grep -oE '^\[  FAILED  \] [A-Za-z0-9_/]+\.[A-Za-z0-9_/.]+' "$out" | awk '{print $4}' | sort -u | paste -sd: -)
  # A crash ends the output inside the test that was running.
  [ -n "$failed" ] || failed=$(grep -oE '^\[ RUN      \] [A-Za-z0-9_/.]+' "$out" | tail -1 | awk '{print $4}')
  {
    echo "FAILED seed $seed: $(basename "$program") $failed"
    grep -E 'Failure|verifier|ERROR|runtime error|deadlock' "$out" | head -5 | sed 's/^/    /'
    echo "    replay: HK_SEED=$seed HK_INTERLEAVE=$mode $program --gtest_filter='${failed:-$filter}'"
  } >"$out.report"
  return 1
}
export -f run
export log mode filter

start=$SECONDS
last=$((first + seeds - 1))
for seed in $(seq "$first" "$last"); do
  printf '%s\n' "${programs[@]}" | xargs -P "$(nproc)" -I{} bash -c 'run "$1" "$2"' _ "$seed" {}
  cat "$log"/*.report 2>/dev/null && mkdir -p "$log/done" && mv "$log"/*.report "$log/done/"
  printf '\rseed %d/%d, %d failed runs, %ds ' "$((seed - first + 1))" "$seeds" \
    "$(find "$log/done" -name '*.report' 2>/dev/null | wc -l)" "$((SECONDS - start))" >&2
done
echo >&2
runs=$((seeds * ${#programs[@]}))
failures=$(find "$log/done" -name '*.report' 2>/dev/null | wc -l)
echo "campaign: $seeds seeds x ${#programs[@]} programs = $runs runs, $failures failed, $((SECONDS - start)) s ($mode)"
[ "$failures" -eq 0 ]
