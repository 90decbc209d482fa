#!/bin/sh
# Builds the fuzzers (host-fuzz preset, clang, libFuzzer) and runs each one
# for SECONDS (default 12: eight targets in about a minute and a half) on a
# copy of its seed corpus and its regression inputs, so that the run adds
# nothing to the repository. Exits non-zero when a fuzzer finds a crash;
# the reproducer is kept and its path printed.
#
# Usage: scripts/fuzz.sh [SECONDS]
set -eu

seconds=${1:-12}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${CDCACM_FUZZ_BUILD:-$root/build/host-fuzz}
targets="ppp_framer ppp_deframer notification descriptors serial_ioctl script_parse profile_file inf"

cmake --preset host-fuzz -S "$root" -B "$build" >/dev/null
fuzzers=""
for target in $targets; do
    fuzzers="$fuzzers ${target}_fuzzer"
done
# shellcheck disable=SC2086 # one word per fuzzer
cmake --build "$build" -j2 --target $fuzzers

# One seed makes a run repeatable (as far as a time limit allows).
seed=${CDCACM_FUZZ_SEED:-1}
work=$(mktemp -d "${TMPDIR:-/tmp}/cdcacm-fuzz.XXXXXX")
status=0
for target in $targets; do
    corpus="$work/$target/corpus"
    artifacts="$work/$target/artifacts"
    mkdir -p "$corpus" "$artifacts"
    cp "$root/tests/fuzz/corpus/$target/"* "$corpus/"
    if [ -d "$root/tests/fuzz/regressions/$target" ]; then
        cp "$root/tests/fuzz/regressions/$target/"* "$corpus/"
    fi
    # The driver targets keep one machine across inputs, whose own records
    # come and go unevenly: libFuzzer's leak check after such an input
    # reruns it under LeakSanitizer for nothing. They check each input's
    # pool blocks and IRPs instead; LeakSanitizer still checks at exit.
    case $target in
    ppp_* | notification | descriptors | serial_ioctl) leaks=0 ;;
    *) leaks=1 ;;
    esac
    echo "== $target: ${seconds}s"
    if ! "$build/tests/fuzz/${target}_fuzzer" -max_total_time="$seconds" -seed="$seed" -max_len=12000 \
        -detect_leaks="$leaks" -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" \
        >"$work/$target/log" 2>&1; then
        tail -n 60 "$work/$target/log"
        echo "== $target: CRASH (seed $seed), reproducers in $artifacts" >&2
        status=1
    else
        grep -E "^(#[0-9]+ +DONE|stat::number_of_executed_units)" "$work/$target/log" || true
    fi
done

if [ "$status" -eq 0 ]; then
    rm -rf "$work"
fi
exit "$status"
