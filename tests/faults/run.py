#!/usr/bin/python3
"""Plays one part of one sweep in a world of its own.

    tests/faults/run.py SWEEP PART PARTS SAMPLE     every SAMPLE-th case; the last line counts"""

import os
import shutil
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path[1:1] = [os.path.join(ROOT, "tools/lib"), os.path.join(ROOT, "tests")]
import hostile
import sweeps
import walkers
import world

SWEEPS = {"kill": sweeps.kill_cases, "error": sweeps.error_cases, "power": sweeps.power_cases,
          "smtp": hostile.smtp_cases, "dns": hostile.dns_cases, "spool": hostile.spool_cases,
          "walkers": walkers.walker_cases}


def main():
    scratch = world.enter()
    sweep, part, parts, sample = sys.argv[1], *map(int, sys.argv[2:5])
    passed = failed = 0
    whole = sweep not in ("kill", "error", "power")  # the cases of a table share their runs
    found = SWEEPS[sweep](scratch, sample == 1) if whole else SWEEPS[sweep](scratch)
    for number, (name, play) in enumerate(found):
        if not whole and (number % sample or number // sample % parts != part):
            continue
        try:
            faults = play()
        except Exception as fault:  # a case that breaks the checker is a failed case
            faults = [repr(fault)]
        passed, failed = passed + (not faults), failed + bool(faults)
        for fault in faults:
            print(f"{sweep}: {name}: {fault}", flush=True)
        for old in os.listdir(scratch):
            if old.startswith("w") and not whole:
                shutil.rmtree(os.path.join(scratch, old))
    print(f"{passed} passed, {failed} failed", flush=True)


main()
