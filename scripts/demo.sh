#!/usr/bin/env bash
# The main job: installs what a fresh machine lacks, builds cdcacm-sim and
# runs its narrated demo. Arguments go to the demo (for example
# --profile busy, --speed high, --trace 0x80003, --capture demo.pcap).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host -j"$(nproc)" --target cdcacm-sim >/dev/null
exec build/host/tools/sim/cdcacm-sim demo "$@"
