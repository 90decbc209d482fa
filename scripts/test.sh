#!/usr/bin/env bash
# Builds everything and runs every test: the host build under AddressSanitizer
# and UndefinedBehaviorSanitizer with CTest, then the same as 32-bit x86 code
# (the driver's pointer size and layouts), the Windows x86 driver build
# (warnings are errors) with the check of its image and stack frames, and
# short bounded fuzzing runs.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

bash scripts/install-deps.sh

cmake --preset windows-x86 >/dev/null
cmake --build --preset windows-x86 -j"$jobs"
bash scripts/check-driver-image.sh build/windows-x86

cmake --preset host-asan >/dev/null
cmake --build --preset host-asan -j"$jobs"
ctest --preset host-asan -j"$jobs"

cmake --preset host32-asan >/dev/null
cmake --build --preset host32-asan -j"$jobs"
ctest --preset host32-asan -j"$jobs"

# A bounded campaign of the interleaving mode over the driver's tests: eight
# seeds on two processors and four on one (about a minute); the full campaign
# is scripts/campaign.sh with its defaults.
bash scripts/campaign.sh --seeds 8
bash scripts/campaign.sh --seeds 4 --cpus 1 --first 101

# A sampled fault campaign over the demo and the whole-life scenario: 24
# points of each kind of fault spread over each, and 4 interleaving seeds
# (about 40 s here); README ("campaign") has the full one.
build/host-asan/tools/sim/cdcacm-sim campaign demo tests/sim/scenarios/whole_life.scenario \
  --sample 24 --interleave-seeds 4 --known tests/sim/campaign_known.txt --jobs "$jobs" \
  --timeout 900

if [ -f scripts/fuzz.sh ]; then
  bash scripts/fuzz.sh
fi
