"""Runs clang-tidy over the product's sources, those left out that were clean before: a source is judged
again when it, a header of ours that it includes, its command or the checks have changed.

    tidy.py BUILD [--changed] [PATTERN]     see tools/lint"""
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


@functools.cache
def includes(path):
    """The file and every one of ours that it includes, whatever the way."""
    found, new = {path}, [path]
    while new:
        here = new.pop()
        for name in INCLUDE.findall(here.read_text()):
            places = (place / name for place in (here.parent, ROOT / "lib", ROOT / "proxies", ROOT / "tools"))
            there = next((place.resolve() for place in places if place.is_file()), None)
            if there and there not in found:
                found.add(there)
                new.append(there)
    return found


def key(entry):
    digest = hashlib.sha256((entry["command"] + (ROOT / ".clang-tidy").read_text()).encode())
    for path in sorted(includes(pathlib.Path(entry["file"]))):
        digest.update(path.read_bytes())
    return digest.hexdigest()


def changed():
    """What differs from the commit before the latest; None when there is none."""
    told = subprocess.run(["git", "-c", "safe.directory=*", "diff", "--name-only", "HEAD~1"], cwd=ROOT, check=False,
                          capture_output=True, text=True)
    return {ROOT / name for name in told.stdout.splitlines()} if told.returncode == 0 else None


def judge(build, entry, clean):
    done = subprocess.run(["clang-tidy-14", "--quiet", "-p", build, entry["file"]], capture_output=True, text=True, check=False)
    if done.returncode == 0:
        clean.touch()
    else:
        print(done.stdout, end="", flush=True)
    return done.returncode == 0


def main():
    build, *words = sys.argv[1:]
    pattern = next((word for word in words if word != "--changed"), ".")
    only = changed() if "--changed" in words else None
    memory = pathlib.Path(build) / "clean"
    memory.mkdir(exist_ok=True)
    jobs = []
    for entry in json.loads((pathlib.Path(build) / "compile_commands.json").read_text()):
        clean = memory / key(entry)
        if re.search(pattern, entry["file"]) and not clean.exists() and (only is None or only & includes(pathlib.Path(entry["file"]))):
            jobs.append((build, entry, clean))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        good = list(pool.map(lambda job: judge(*job), jobs))
    return not all(good)


sys.exit(main())
