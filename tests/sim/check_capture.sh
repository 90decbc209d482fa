#!/usr/bin/env bash
# Reads a demo's bus capture back with tshark, as a user opening it in
# Wireshark would: no packet may be malformed, and the CDC dissector must
# decode the SET_LINE_CODING the demo sent (115200 bps: 00 c2 01 00).
set -euo pipefail
capture=$1
if ! command -v tshark >/dev/null; then
  echo "tshark is missing: scripts/install-deps.sh installs it" >&2
  exit 1
fi
packets=$(tshark -r "$capture" 2>/dev/null | wc -l)
malformed=$(tshark -r "$capture" -Y _ws.malformed 2>/dev/null | wc -l)
decoded=$(tshark -r "$capture" -V 2>/dev/null)
echo "$packets packets, $malformed malformed"
[ "$packets" -gt 100 ] || { echo "too few packets in $capture" >&2; exit 1; }
[ "$malformed" -eq 0 ] || { tshark -r "$capture" -Y _ws.malformed >&2; exit 1; }
grep -q "SET LINE CODING" <<<"$decoded" || { echo "no SET LINE CODING decoded" >&2; exit 1; }
grep -q "00c20100" <<<"$decoded" || { echo "no 115200 bps line coding decoded" >&2; exit 1; }
echo "SET LINE CODING 115200 decoded"
