#!/usr/bin/python3
"""cdcacm-sim run driven by pyserial, as a support engineer's script drives
a COM port: the AT dialogue, a speed change that reaches the modem as
SET_LINE_CODING, close and reopen, 1 MB through a loopback modem checked
byte for byte, a clean end on SIGTERM, and a link path that is taken.

Usage: run_bridge_test.py CDCACM_SIM WORK_DIR
"""
import atexit
import os
import queue
import random
import signal
import subprocess
import sys
import threading

import serial

SIM, WORK = sys.argv[1], sys.argv[2]
os.makedirs(WORK, exist_ok=True)
failures = []


def check(ok, what):
    print(("ok:     " if ok else "FAILED: ") + what, flush=True)
    if not ok:
        failures.append(what)


class Bridge:
    """One cdcacm-sim run; its transcript is read line by line."""

    def __init__(self, *options):
        self.link = os.path.join(WORK, "modem")
        if os.path.lexists(self.link):
            os.unlink(self.link)
        self.process = subprocess.Popen([SIM, "run", "--link", self.link, *options],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        # A run that hangs or a failed check must not outlive the test.
        atexit.register(self.process.kill)
        self.lines = queue.Queue()
        self.transcript = []
        threading.Thread(target=self._read, daemon=True).start()
        self.wait_for(" is at ")

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def wait_for(self, text, seconds=60):
        """The transcript's next line containing text, or None."""
        try:
            while True:
                line = self.lines.get(timeout=seconds)
                if line is None:
                    return None
                self.transcript.append(line)
                if text in line:
                    return line
        except queue.Empty:
            return None

    def open(self, baud=115200):
        return serial.Serial(self.link, baud, timeout=30)

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=60)
        verdict = self.wait_for("verdict:")
        return status, verdict


def at_dialogue_speed_and_reopen():
    bridge = Bridge()
    port = bridge.open()
    port.write(b"AT\r")
    check(port.read_until(b"OK\r\n").endswith(b"OK\r\n"), "AT answers OK")
    port.baudrate = 9600
    check(bridge.wait_for("the modem received SET_LINE_CODING 9600 8N1") is not None,
          "a speed change reaches the modem as SET_LINE_CODING")
    # (What else of termios reaches the DCB is the line settings test's.)
    port.close()
    check(bridge.wait_for("SET_CONTROL_LINE_STATE DTR off") is not None,
          "closing the terminal closes the port and drops DTR")
    port = bridge.open()
    port.write(b"AT\r")
    check(port.read_until(b"OK\r\n").endswith(b"OK\r\n"), "the reopened port answers")
    port.close()
    status, verdict = bridge.end()
    check(status == 0 and verdict is not None and "clean" in verdict,
          "SIGTERM ends the run clean with status 0 (%s, %s)" % (status, verdict))


def megabyte_through_loopback():
    bridge = Bridge("--modem", "loopback", "--speed", "high")
    port = bridge.open()
    data = random.Random(7).randbytes(1 << 20)
    writer = threading.Thread(target=lambda: port.write(data))
    writer.start()
    back = bytearray()
    while len(back) < len(data):
        chunk = port.read(len(data) - len(back))
        if not chunk:
            break
        back += chunk
    writer.join()
    check(bytes(back) == data, "1 MB through a loopback modem comes back byte for byte "
          "(%d of %d bytes)" % (len(back), len(data)))
    port.close()
    status, verdict = bridge.end()
    check(status == 0 and verdict is not None and "clean" in verdict,
          "the loopback run ends clean (%s, %s)" % (status, verdict))


def link_taken():
    taken = os.path.join(WORK, "taken")
    open(taken, "w").close()
    result = subprocess.run([SIM, "run", "--link", taken], capture_output=True, text=True,
                            timeout=60)
    check(result.returncode == 2 and "the path is taken" in result.stderr,
          "a link path that is taken is refused with status 2 (%s: %s)"
          % (result.returncode, result.stderr.strip()))


at_dialogue_speed_and_reopen()
megabyte_through_loopback()
link_taken()
sys.exit(1 if failures else 0)
