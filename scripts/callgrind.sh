#!/usr/bin/env bash
# Instructions per byte of the PPP loopback data path, counted by callgrind:
# the driver's functions one by one, the driver's total and the run's total
# (driver, stand-in kernel, bus, modem and application). The workload is
# cdcacm-loopback (tools/bench) in the host-release build, run with 32 and
# with 96 frames; the difference of the two counts is the cost of 64 frames
# without the set-up and teardown. Virtual time makes every run of the
# driver execute the same instructions, so its figures repeat exactly; the
# run's total varies by a few hundred instructions in 28 million (the
# threads' start-up), below the one decimal shown.
#
#   bash scripts/callgrind.sh                  # print the table
#   bash scripts/callgrind.sh --save FILE      # also keep it as a baseline
#   bash scripts/callgrind.sh --baseline FILE  # compare; exit 1 when the
#                                              # driver's total grew > 5 %
#
# Needs valgrind (Debian's valgrind package); the test command does not use
# this script.
set -euo pipefail
cd "$(dirname "$0")/.."

save=""
baseline=""
while [ $# -gt 0 ]; do
  case "$1" in
    --save) save="$2"; shift 2 ;;
    --baseline) baseline="$2"; shift 2 ;;
    *) echo "usage: $0 [--save FILE] [--baseline FILE]" >&2; exit 2 ;;
  esac
done

command -v valgrind >/dev/null || { echo "callgrind.sh: valgrind is not installed (apt-get install valgrind)" >&2; exit 2; }
[ -f build/host-release/build.ninja ] || cmake --preset host-release >/dev/null
cmake --build --preset host-release --target cdcacm-loopback >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for frames in 32 96; do
  valgrind --tool=callgrind --callgrind-out-file="$work/out.$frames" \
    build/host-release/tools/bench/cdcacm-loopback "$frames" >"$work/bytes.$frames" 2>"$work/log.$frames" ||
    { cat "$work/log.$frames" >&2; exit 1; }
  callgrind_annotate --inclusive=no --auto=no --threshold=100 "$work/out.$frames" >"$work/annotate.$frames"
done

python3 - "$work" "$save" "$baseline" <<'EOF'
import re, sys

work, save, baseline = sys.argv[1:4]
line_re = re.compile(r"^\s*([\d,]+) \([^)]*\)\s+(\S.*?):(.*?)(?: \[.*\])?$")

def counts(frames):
    per_function, total = {}, 0
    for line in open(f"{work}/annotate.{frames}"):
        if "PROGRAM TOTALS" in line:
            total = int(line.split()[0].replace(",", ""))
            continue
        m = line_re.match(line)
        if not m:
            continue
        ir, path, function = int(m.group(1).replace(",", "")), m.group(2), m.group(3)
        if "source/cdcacm/" not in path:
            continue
        name = f"{function.split('(')[0]} ({path.rsplit('/', 1)[1]})"
        per_function[name] = per_function.get(name, 0) + ir
    written = int(open(f"{work}/bytes.{frames}").read().split()[1])
    return per_function, total, written

small, small_total, small_bytes = counts(32)
large, large_total, large_bytes = counts(96)
nbytes = large_bytes - small_bytes
rows = {name: (large.get(name, 0) - small.get(name, 0)) / nbytes for name in set(small) | set(large)}
driver = sum(rows.values())
rows = {name: value for name, value in rows.items() if abs(value) >= 0.05}
old = {}
if baseline:
    for line in open(baseline):
        m = re.match(r"^\s*(-?[\d.]+)  (.*\S)\s*$", line)
        if m:
            old[m.group(2)] = float(m.group(1))

everything = (large_total - small_total) / nbytes

out = [f"PPP loopback: instructions per byte written (each byte goes out and comes back),",
       f"the 96-frame run less the 32-frame run ({nbytes} bytes)",
       f"{'Ir/byte':>9}  function"]
# A function of the baseline that no longer costs anything shows as 0.
for name in old:
    if name not in rows and not name.startswith(("driver total", "total")):
        rows[name] = 0.0
table = sorted(rows.items(), key=lambda item: -item[1])
table += [("driver total (source/cdcacm)", driver),
          ("total (driver, stand-in kernel, bus, modem, application)", everything)]
report = []
for name, value in table:
    line = f"{value:9.{1 if name.startswith('total') else 2}f}  {name}"
    if baseline:
        before = old.get(name)
        change = f"{(value / before - 1) * 100:+7.1f} %" if before else "    new"
        line = f"{line:<72} {before if before is not None else 0:9.2f} {change}"
    report.append(line)
if baseline:
    out[-1] = f"{out[-1]:<72} {'baseline':>9} change"
print("\n".join(out + report))
if save:
    with open(save, "w") as f:
        f.write("\n".join(out + [f"{value:9.2f}  {name}" for name, value in table]) + "\n")
if baseline:
    before = old.get("driver total (source/cdcacm)")
    if before and driver > before * 1.05:
        print(f"REGRESSION: the driver's instructions per byte grew by "
              f"{(driver / before - 1) * 100:.1f} % (more than 5 %)")
        sys.exit(1)
    print("no regression of the driver's total beyond 5 %")
EOF
