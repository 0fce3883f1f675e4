#!/usr/bin/python3
"""What the shipped programs carry against hostile bytes, read from the binaries."""
import os
import re
import subprocess

import harness
import world
from harness import SystemTest, cases

PROGRAMS = {name: (os.path.join(os.path.dirname(world.BINARY), place, name),)
            for name, place in (("retryer", ""), ("retryq", "../retryq"), ("evdump", "../../tools/evdump"))}
DEFENCES = {
    "position-independent program": (r"Type: +DYN", r"\(FLAGS_1\).*\bPIE\b"),
    "relocations read-only before main": (r"\bGNU_RELRO\b", r"\(FLAGS(_1)?\).*\b(BIND_)?NOW\b"),
    "no executable stack": (r"GNU_STACK +(0x\w+ +){5}RW +0x",),
    "stack protector": (r"UND __stack_chk_fail\b",),
    "fortified calls": (r"UND __(?!stack)\w+_chk\b",),
    "checked containers": (r"UND \w+__glibcxx_assert_fail",),
}


class Hardening(SystemTest):
    @cases(PROGRAMS)
    def test_hardened(self, program):
        told = subprocess.run(["readelf", "-W", "--file-header", "--segments", "--dynamic", "--dyn-syms", program],
                              check=True, capture_output=True, text=True).stdout
        if "__asan_init" in told:
            self.skipTest("the sanitizers take the place of these")
        missing = [name for name, marks in DEFENCES.items() if not all(re.search(mark, told) for mark in marks)]
        self.assertEqual(missing, [])


if __name__ == "__main__":
    harness.main()
