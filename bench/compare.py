#!/usr/bin/env python3
"""Runs pairs of programs alternately and prints the ratios of their medians: see scripts/bench."""
import os
import re
import signal
import statistics
import subprocess
import sys
import time

build, softhsm = sys.argv[1:]
KESTREL, FLOOR, RUN = (f"{build}/{name}" for name in ("kestrel", "floor", "kestrel-run"))


def run(command, folder):
    """CPU milliseconds of one run."""
    child = subprocess.Popen(command, cwd=folder, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    # kestrel ends with 1 at the token that SoftHSM2 adds; only a broken run is no measurement.
    if child.returncode not in ((0, 1) if command[0] == KESTREL else (0,)):
        sys.exit(f"{command} ended with {child.returncode}")
    return (usage.ru_utime + usage.ru_stime) * 1e3


def memory(command, folder):
    """Peak memory in KiB. By a small program, whose own size does not hide that of its child."""
    subprocess.run(["/usr/bin/time", "-q", "-f", "%M", "-o", "memory.txt", *command], cwd=folder,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(os.path.join(folder, "memory.txt"), encoding="ascii") as text:
        return int(text.read())


def instructions(command, folder):
    """Instructions in user mode, by perf or, where that counts none, by valgrind."""
    try:
        counted = subprocess.run(["perf", "stat", "-x,", "-e", "instructions:u", *command], cwd=folder,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True).stderr
        match = re.search(r"^(\d+),", counted, re.M)
    except FileNotFoundError:
        match = None
    if not match:
        counted = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command],
                                 cwd=folder, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True).stderr
        match = re.search(r"Collected : (\d+)", counted)
    return int(match[1])


def row(name, *figures):
    print(f"{name:44}" + "".join(f"{figure:>14}" for figure in figures), flush=True)


def compare(name, ours, theirs, folder=".", pairs=41):
    figures = []
    for measure, count in ((run, pairs), (memory, 5), (instructions, 1)):
        samples = [(measure(ours, folder), measure(theirs, folder)) for _ in range(count)]
        ours_median, theirs_median = (statistics.median(side) for side in zip(*samples))
        figures.append(f"{ours_median / theirs_median:.2f}")
    row(name, *figures)


def passes(program, folder=".", seconds=1.0):
    """Passes of the endless test in a second, by the last number that it printed."""
    with open("passes.txt", "wb") as report:
        child = subprocess.Popen([program, "waitTest"], cwd=folder, stdout=report, stderr=subprocess.DEVNULL)
        time.sleep(seconds)
        child.send_signal(signal.SIGKILL)
        child.wait()
    with open("passes.txt", "rb") as report:
        report.seek(-4096, os.SEEK_END)
        return int(re.findall(rb"C_GetSlotInfo : (\d+)\n", report.read())[-1])


def milliseconds(*command):
    start = time.monotonic()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return (time.monotonic() - start) * 1e3


def added_by_run(test, count=40, pairs=9):
    """Milliseconds that kestrel-run adds to each of the kestrels that it starts."""
    plain = ["sh", "-c", f"cd soft; for i in $(seq {count}); do {KESTREL} -pw 12345678 {test}; done"]
    through = [RUN, "--quiet", "--test", test, "--repeat", str(count)]
    samples = [milliseconds(*through) - milliseconds(*plain) for _ in range(pairs)]
    return statistics.median(samples) / count


row("", "CPU time", "memory", "instructions")
for test in ("libInfo", "listTokens"):
    compare(f"{test}, SoftHSM2, to the floor", [KESTREL, test], [FLOOR, test])
for test, option in (("libInfo", "--show-info"), ("listTokens", "--list-token-slots")):
    compare(f"{test}, SoftHSM2, to pkcs11-tool", [KESTREL, test],
            ["pkcs11-tool", "--module", softhsm, option])
compare("signUpdate, SoftHSM2, to the floor", [KESTREL, "-pw", "1234", "signUpdate"],
        [FLOOR, "signUpdate", "1234"])
compare("signUpdate, software token, to the floor", [KESTREL, "-pw", "12345678", "signUpdate"],
        [FLOOR, "signUpdate", "12345678"], "soft")
for name, ours, theirs in (("passes to the floor's", (KESTREL,), (FLOOR,)),
                           ("through the shim to without", (KESTREL, "shim"), (KESTREL,))):
    rates = [(passes(*ours), passes(*theirs)) for _ in range(7)]
    row(f"waitTest, SoftHSM2, {name}",
        f"{statistics.median(a for a, _ in rates) / statistics.median(b for _, b in rates):.2f}")
for test in ("libInfo", "signData"):
    row(f"{test}, what kestrel-run adds to it", f"{added_by_run(test):.1f} ms")
