#!/usr/bin/env python3
"""Reads a cdcacm-sim timeline back and checks it the way a trace viewer
builds its model: valid JSON in the trace-event object form, every track
named, B/E spans properly nested per track (an E closes the innermost B),
timestamps never going back on a track, every async span ended, every flow
with both ends, each end bound to a span open on its track. Then checks the
kinds of events the caller expects.

    check_timeline.py FILE [--expect PHASE:REGEX]... [--flow CAT:FROM:TO]...

--expect asks for at least one event of that phase whose name matches;
--flow for a flow of that category whose start lies in a span named FROM
and whose end lies in a span named TO (regexes).
"""
import argparse
import collections
import json
import re
import sys


def check(trace):
    """Returns (errors, bindings)."""
    errors = []
    if not isinstance(trace, dict) or not isinstance(trace.get("traceEvents"), list):
        return ["not the object form with a traceEvents list"], [], {}
    if "virtual" not in trace.get("otherData", {}).get("clock", ""):
        errors.append("otherData.clock does not say the clock is virtual")
    events = trace["traceEvents"]
    named = set()
    for e in events:
        if e.get("ph") == "M" and e.get("name") == "thread_name":
            named.add((e["pid"], e["tid"]))
    stacks = collections.defaultdict(list)  # track: open span names
    last_ts = {}
    asyncs = {}  # id: (name, ts)
    flows = {}  # id: {"s": (cat, ts, span), "f": ...}
    for index, e in enumerate(events):
        ph = e.get("ph")
        if ph == "M":
            continue
        where = "event %d (%s %r)" % (index, ph, e.get("name"))
        track = (e.get("pid"), e.get("tid"))
        ts = e.get("ts")
        if not isinstance(ts, (int, float)):
            errors.append(where + ": no timestamp")
            continue
        if track not in named:
            errors.append(where + ": track %r has no thread_name" % (track,))
            named.add(track)
        if ts < last_ts.get(track, float("-inf")):
            errors.append(where + ": timestamp %s before %s on its track" % (ts, last_ts[track]))
        last_ts[track] = ts
        stack = stacks[track]
        if ph == "B":
            stack.append(e["name"])
        elif ph == "E":
            if not stack:
                errors.append(where + ": E with no open span on its track")
            else:
                stack.pop()
        elif ph == "b":
            if e.get("id") in asyncs:
                errors.append(where + ": async id %s begun twice" % e.get("id"))
            asyncs[e.get("id")] = (e.get("name"), ts)
        elif ph == "e":
            begun = asyncs.pop(e.get("id"), None)
            if begun is None:
                errors.append(where + ": async end without its begin")
            elif begun[0] != e.get("name") or begun[1] > ts:
                errors.append(where + ": async end does not match its begin %r" % (begun,))
        elif ph in ("s", "f"):
            if not stack:
                errors.append(where + ": flow event outside any span on its track")
            end = flows.setdefault(e.get("id"), {})
            if ph in end:
                errors.append(where + ": flow id %s has two %s events" % (e.get("id"), ph))
            end[ph] = (e.get("cat"), ts, stack[-1] if stack else None)
            if ph == "f" and e.get("bp") != "e":
                errors.append(where + ": flow end not bound to its enclosing span (bp)")
        elif ph != "i":
            errors.append(where + ": unexpected phase")
    for track, stack in stacks.items():
        if stack:
            errors.append("track %r ends with open spans %r" % (track, stack))
    for id_, (name, _) in asyncs.items():
        errors.append("async span %s %r never ended" % (id_, name))
    bindings = []
    for id_, ends in flows.items():
        if set(ends) != {"s", "f"}:
            errors.append("flow %s has only %s" % (id_, "".join(sorted(ends))))
            continue
        (scat, sts, sspan), (fcat, fts, fspan) = ends["s"], ends["f"]
        if scat != fcat or fts < sts:
            errors.append("flow %s: end %r does not follow its start %r" % (id_, ends["f"], ends["s"]))
        bindings.append((scat, sspan, fspan))
    return errors, bindings


def expectations(trace, bindings, expects, flow_expects):
    errors = []
    for expect in expects:
        phase, regex = expect.split(":", 1)
        if not any(e.get("ph") == phase and re.search(regex, e.get("name", ""))
                   for e in trace["traceEvents"]):
            errors.append("no %s event named like %r" % (phase, regex))
    for expect in flow_expects:
        cat, start, end = expect.split(":", 2)
        if not any(c == cat and s and f and re.search(start, s) and re.search(end, f)
                   for c, s, f in bindings):
            errors.append("no %s flow from a span like %r to one like %r" % (cat, start, end))
    return errors


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("file")
    parser.add_argument("--expect", action="append", default=[])
    parser.add_argument("--flow", action="append", default=[])
    args = parser.parse_args()
    try:
        with open(args.file, encoding="utf-8") as f:
            trace = json.load(f)
    except (OSError, ValueError) as error:
        print("%s: %s" % (args.file, error))
        return 1
    errors, bindings = check(trace)
    errors += expectations(trace, bindings, args.expect, args.flow)
    for error in errors[:20]:
        print("error: " + error)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
