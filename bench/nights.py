#!/usr/bin/env python3
"""nights.py PROGRAM [NIGHTS [PATHS]]: how long vondral-nightly takes to index, find and show a directory of nights.

The nights (1000 by default) have PATHS paths each (100,000), of which a hundredth differs from night to night. They are
made up, with catalogs that several nights share, so that the disk is not what is measured.
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

VARIANTS = 20  # different catalogs
FIRST = 1_700_000_000  # seconds since the epoch


def catalog(paths, variant):
    lines = []
    for number in range(paths):
        # One path in a hundred is there in some variants only.
        if number % 100 or (number // 100 + variant) % 3:
            lines.append(f"[02:00:00] [T04] /home/user{number % 977}/documents/file{number}.txt\n")
    return lines


def make_nights(directory, nights, paths):
    catalogs = []
    for variant in range(VARIANTS):
        name = os.path.join(directory, f"catalog{variant}")
        lines = catalog(paths, variant)
        with open(name, "w") as file:
            file.writelines(lines)
        catalogs.append((name, len(lines)))
    os.mkdir(os.path.join(directory, "nights"))
    digest = "0" * 64
    for number in range(nights):
        moment = FIRST + number * 86400
        night = os.path.join(directory, "nights", time.strftime("%Y-%m-%dT%H%M%SZ", time.gmtime(moment)))
        os.mkdir(night)
        shared, lines = catalogs[number % VARIANTS]
        os.link(shared, os.path.join(night, "catalog"))
        with open(os.path.join(night, "archive.sum"), "w") as file:
            file.write(f"{digest} 0 1000 /home.savf\n")
        record = {"name": "bench", "server": "bench", "sequence": number + 1, "level": "full", "verdict": "good",
                  "reasons": [], "started": moment, "ended": moment + 3600, "exit_status": 0, "retries": 0,
                  "attempted": lines, "objects": lines, "missing": 0, "newly_missing": 0, "bytes": 1000,
                  "archives": ["archive.ctar"], "archive_bytes": [0], "catalog_is_covered": True}
        with open(os.path.join(night, "run.json"), "w") as file:
            json.dump(record, file)
        open(os.path.join(night, "archive.ctar"), "w").close()


def seconds(program, *arguments):
    begun = time.monotonic()
    subprocess.run([program, *arguments], stdout=subprocess.DEVNULL, check=True)
    return time.monotonic() - begun


def measure(program, nights, paths):
    """Seconds by name: to index all nights, and the median of five runs of each question."""
    with tempfile.TemporaryDirectory() as directory:
        make_nights(directory, nights, paths)
        with open(os.path.join(directory, "bench.toml"), "w") as file:
            file.write('server = "bench"\nlogin = "BENCH"\npassphrase = "file:/none"\n'
                       f'directory = "{directory}/nights"\n')
        options = ["--config-dir", directory]
        took = {"reindex": seconds(program, *options, "reindex", "bench")}
        for name, arguments in (("find a path", ["find", "bench", "/home/user600/documents/file600.txt"]),
                                ("find a name", ["find", "bench", "file100.txt"]),
                                ("status", ["status", "--max-age", "100y"])):
            took[name] = statistics.median(seconds(program, *options, *arguments) for _ in range(5))
        return took


def main():
    nights = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    paths = int(sys.argv[3]) if len(sys.argv) > 3 else 100_000
    print(f"{nights} nights of {paths} paths")
    for name, took in measure(sys.argv[1], nights, paths).items():
        print(f"{name}: {took:.3f} s")


if __name__ == "__main__":
    main()
