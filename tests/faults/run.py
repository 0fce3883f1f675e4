#!/usr/bin/python3
"""Plays one part of one sweep in a world of its own.

    tests/faults/run.py SWEEP PART PARTS SAMPLE SEED     every SAMPLE-th case from the seed on; the last line
counts. With internet- before the sweep: with the rule table's block for Internet mail."""

import os
import shutil
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path[1:1] = [os.path.join(ROOT, "tools/lib"), os.path.join(ROOT, "tests")]
import hostile
import scene
import sweeps
import walkers
import world

SWEEPS = {"kill": sweeps.kill_cases, "hands": sweeps.hand_cases, "error": sweeps.error_cases, "power": sweeps.power_cases,
          "smtp": hostile.smtp_cases, "dns": hostile.dns_cases, "spool": hostile.spool_cases,
          "walkers": walkers.walker_cases, "run": walkers.run_cases, "run-kill": sweeps.run_kill_cases,
          "run-error": sweeps.run_error_cases, "run-smtp": hostile.by_run(hostile.smtp_cases),
          "run-dns": hostile.by_run(hostile.dns_cases), "run-spool": hostile.by_run(hostile.spool_cases)}
# A kill between these two loses mail when their order is wrong: always played.
ALWAYS = {"kill": ("rename", "unlink")}


def main():
    scratch = world.enter()
    sweep, part, parts, sample, seed = sys.argv[1], *map(int, sys.argv[2:6])
    if sweep.startswith("internet-"):
        scene.internet(scratch)
        sweep = sweep.removeprefix("internet-")
    passed = failed = 0
    whole = sweep.removeprefix("run-") not in ("kill", "error", "power", "hands")  # the cases of a table share their runs
    found = SWEEPS[sweep](scratch, lambda n: (n + seed) % sample == 0, seed) if whole else SWEEPS[sweep](scratch)
    for number, (name, play) in enumerate(found):
        if not whole and ((number + seed) % sample and not name.startswith(ALWAYS.get(sweep, ("none",))) or number // sample % parts != part):
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
