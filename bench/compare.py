"""Paired runs of the program and of what it is compared with: prints tables of medians and ratios.

Usage: compare.py BUILD [--against BUILD] [--rounds N] [--scale N] [--only PART] [-- SERVER-PREFIX...]; --scale divides
every size, for a quick look; --against adds the programs of another build to the tables of transfers.
"""
import argparse
import json
import os
import random
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import nights

MIB = 1 << 20
ADDRESS = "127.0.0.31"
LOGIN = ["-s", ADDRESS, "-c", "FRED:here:secret"]


class Run:
    """What one process cost. The `time` in between is there because a process started from here would be charged with
    this interpreter's memory."""

    def __init__(self, command, ok=(0,)):
        with tempfile.NamedTemporaryFile("r") as peak:
            begun = time.perf_counter()
            child = subprocess.Popen(["time", "-q", "-f", "%M", "-o", peak.name, *command], stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
            _, status, usage = os.wait4(child.pid, 0)
            child.returncode = os.waitstatus_to_exitcode(status)
            self.wall = time.perf_counter() - begun
            self.cpu = usage.ru_utime + usage.ru_stime
            self.memory = int(peak.read().split()[-1]) / 1024
        if child.returncode not in ok:
            sys.exit(f"{' '.join(command)[:300]}: ended with {child.returncode}")


def calls(command):
    """The system calls of a command and its threads."""
    with tempfile.NamedTemporaryFile("r") as report:
        subprocess.run(["strace", "-f", "-c", "-o", report.name, *command], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, check=False)
        return int([line for line in report if line.rstrip().endswith("total")][-1].split()[3])


class Targets:
    """What the figures should be at most, or at least, and were."""

    def __init__(self):
        self.lines = []

    def add(self, what, figure, limit, at_least=False):
        held = figure >= limit if at_least else figure <= limit
        off = abs(figure / limit - 1) * 100
        verdict = "held by" if held else "NOT HELD by"
        bound = "at least" if at_least else "at most"
        self.lines.append(f"{verdict:>11} {off:3.0f} %  {what}: {figure:.2f}, {bound} {limit:g}")

    def print(self):
        if self.lines:
            print("\n## Targets\n\n" + "\n".join(self.lines))


def fill(path, size):
    """Makes a file of zeros: the server keeps an uploaded block of them as a hole, so that an upload is not measured by
    how fast a machine finds memory for the server's file."""
    path = path if isinstance(path, str) else os.path.join(*path)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        for at in range(0, size, MIB):
            file.write(bytes(min(MIB, size - at)))
    return path


def touch(folder, count):
    os.makedirs(folder, exist_ok=True)
    for number in range(count):
        os.close(os.open(f"{folder}/object{number:07d}.txt", os.O_CREAT | os.O_WRONLY, 0o644))


class Bench:
    def __init__(self, options, work, prefix):
        self.build, self.against, self.work, self.prefix = options.build, options.against, work, prefix
        self.rounds, self.scale = options.rounds, options.scale
        self.servers = []
        self.targets = Targets()
        # For large transfers the server has the first processor for itself, so that the figures do not depend on where
        # the kernel puts both ends of a loopback connection.
        first, *others = sorted(os.sched_getaffinity(0))
        self.server_side = ["taskset", "-c", str(first)] if others else []
        self.client_side = ["taskset", "-c", ",".join(map(str, others))] if others else []
        self.root = f"{work}/root"
        os.makedirs(f"{self.root}/QSYS.LIB")
        os.makedirs(f"{self.root}/home")
        fill(f"{self.root}/Security Data", 1)
        fill(f"{self.root}/System Configuration", 1)
        self.no_system = self.file("no-system", "/Security Data\n/System Configuration\n")

    def compare(self, title, commands, before=None, mebibytes=0):
        """Runs the commands in turn, and prints each with the ratios of the first one to it. Returns the medians of
        these ratios by command and figure, and the first one's greatest memory in MiB. `mebibytes` is the size of a
        large transfer, which runs apart from its server."""
        if self.against:
            for name, command in list(commands.items()):
                if name.startswith("vondral"):
                    other = [word.replace(f"{self.build}/", f"{self.against}/") for word in command]
                    commands[f"{name}, {self.against}"] = other
        if mebibytes:
            commands = {name: [*self.client_side, *command] for name, command in commands.items()}
        runs = {name: [] for name in commands}
        for _ in range(self.rounds):
            for name, command in commands.items():
                if before:
                    before()
                runs[name].append(Run(command))
        first = runs[next(iter(commands))]
        medians = {}
        print(f"\n### {title}\n")
        print("| | wall s | CPU s | memory MiB | calls/MiB | wall ratio (min to max) | CPU ratio (min to max) |")
        print("|---|---|---|---|---|---|---|")
        for name, command in commands.items():
            row = [name]
            for figure in ("wall", "cpu"):
                row.append(f"{statistics.median(getattr(run, figure) for run in runs[name]):.3f}")
            row.append(f"{max(run.memory for run in runs[name]):.1f}")
            row.append(f"{calls(command) / mebibytes:.1f}" if mebibytes else "")
            for figure in ("wall", "cpu"):
                ratios = [getattr(a, figure) / getattr(b, figure) for a, b in zip(first, runs[name])]
                medians[name, figure] = statistics.median(ratios)
                row.append(f"{medians[name, figure]:.2f} ({min(ratios):.2f} to {max(ratios):.2f})")
            print("| " + " | ".join(row) + " |", flush=True)
        return medians, max(run.memory for run in first)

    def against_curl(self, what, medians, curl, wall, cpu):
        self.targets.add(f"{what}: wall time, of curl's", medians[curl, "wall"], wall)
        self.targets.add(f"{what}: processor time, of curl's", medians[curl, "cpu"], cpu)

    def file(self, name, text):
        path = f"{self.work}/{name}"
        with open(path, "w") as file:
            file.write(text)
        # What was written just now could still change unseen; a path file is trusted a second later.
        os.utime(path, (time.time() - 60,) * 2)
        return path

    def vondral(self, *arguments):
        return [f"{self.build}/vondral", *LOGIN, *arguments]

    def floor(self, verb, remote, local):
        return [f"{self.build}/floor", verb, ADDRESS, remote, local]

    def serve(self, *options, side=()):
        # Save files stand beside the store, so that putting a raw one in its place is a rename and not a copy.
        server = subprocess.Popen([*self.prefix, "env", f"TMPDIR={self.work}", *side, f"{self.build}/bench-server",
                                   self.root, ADDRESS, *options], stdout=subprocess.PIPE)
        self.servers.append(server)
        server.stdout.readline()
        return server

    @staticmethod
    def stop(server):
        server.terminate()
        server.wait() # the next one takes its port

    def large(self):
        """A server with one large save file; its size in MiB, the backup of it, and how lftp is called."""
        size = 1024 // self.scale
        fill(f"{self.root}/home/big", size * MIB)
        include = self.file("big", "/home/big\n")
        backup = self.vondral("-b", f"{self.work}/archive", "-i", include, "-e", self.no_system)
        options = "set ftp:use-feat no; set ftp:use-mdtm no; set ftp:use-size no; set xfer:clobber yes;"

        def lftp(command):
            return ["lftp", "-u", "FRED,secret", f"ftp://{ADDRESS}", "-e", f"{options} {command}; bye"]

        server = self.serve("raw:/home/big", "raw:/home/up", side=self.server_side)
        return server, size, backup, lftp

    url = f"ftp://FRED:secret@{ADDRESS}//home"

    def backup(self):
        server, size, backup, lftp = self.large()
        medians, _ = self.compare(f"Backup of one save file of {size} MiB, into memory", {
            "vondral": backup,
            "curl": ["curl", "-s", "-o", f"{self.work}/copy", f"{self.url}/big"],
            "lftp": lftp(f"get /home/big -o {self.work}/copy"),
            "floor": self.floor("get", "/home/big", f"{self.work}/copy"),
        }, mebibytes=size)
        self.against_curl("backup", medians, "curl", 1.0, 1.0)
        self.stop(server)
        os.unlink(f"{self.work}/copy")
        os.unlink(f"{self.root}/home/big")

    def restore(self):
        server, size, backup, lftp = self.large()
        Run(backup)
        with tempfile.TemporaryDirectory(dir=os.environ.get("TMPDIR", "/var/tmp")) as disk:
            for place, cold in ((self.work, False), (disk, False), (disk, True)):
                there = f"{place}/there"
                plain = f"{place}/plain"
                shutil.copy(f"{self.work}/archive", there)
                shutil.copy(f"{self.root}/home/big", plain)

                def forget(paths=(there, plain)):
                    for path in paths:
                        with open(path, "rb") as file:
                            os.fsync(file.fileno())
                            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)

                where = "in memory" if place == self.work else "on disk, not cached" if cold else "on disk, cached"
                medians, memory = self.compare(f"Restore of {size} MiB, archive {where}", {
                    "vondral": self.vondral("-r", there, "-e", self.no_system),
                    "curl -T": ["curl", "-s", "-T", plain, f"{self.url}/up"],
                    "lftp put": lftp(f"put {plain} -o /home/up"),
                    "floor": self.floor("put", "/home/up", plain),
                }, before=forget if cold else None, mebibytes=size)
                self.against_curl(f"restore, {where}", medians, "curl -T", *((0.8, 0.8) if cold else (1.0, 0.9)))
                self.targets.add(f"restore, {where}: memory in MiB", memory, 8)
        self.stop(server)
        os.unlink(f"{self.root}/home/big")
        os.unlink(f"{self.root}/home/up")

    def tls(self):
        """The program through its relay, and curl, over TLS, on the same server."""
        size = 1024 // self.scale
        fill(f"{self.root}/home/big", size * MIB)
        include = self.file("big", "/home/big\n")
        certificate = f"{self.work}/certificate"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=bench",
                        "-addext", f"subjectAltName=IP:{ADDRESS}", "-keyout", f"{certificate}.key", "-out",
                        f"{certificate}.pem"], stderr=subprocess.DEVNULL, check=True)
        relay = [f"{self.build}/vondral-tls", "--server", ADDRESS, "--ca", f"{certificate}.pem", "--",
                 f"{self.build}/vondral", "-s", "{}", *LOGIN[2:]]
        curl = ["curl", "-s", "--ssl-reqd", "--cacert", f"{certificate}.pem"]
        system = ["-e", self.no_system]
        server = self.serve("raw:/home/big", "raw:/home/up", f"tls:{certificate}", side=self.server_side)
        medians, _ = self.compare(f"Backup of one save file of {size} MiB over TLS, into memory", {
            "vondral-tls and vondral": [*relay, "-b", f"{self.work}/archive", "-i", include, *system],
            "curl --ssl-reqd": [*curl, "-o", f"{self.work}/copy", f"{self.url}/big"],
        }, mebibytes=size)
        self.against_curl("backup over TLS", medians, "curl --ssl-reqd", 1.0, 1.3)
        medians, _ = self.compare(f"Restore of {size} MiB over TLS, archive in memory", {
            "vondral-tls and vondral": [*relay, "-r", f"{self.work}/archive", *system],
            "curl --ssl-reqd -T": [*curl, "-T", f"{self.root}/home/big", f"{self.url}/up"],
        }, mebibytes=size)
        self.against_curl("restore over TLS", medians, "curl --ssl-reqd -T", 1.0, 1.3)
        self.stop(server)
        os.unlink(f"{self.work}/copy")
        os.unlink(f"{self.root}/home/big")
        os.unlink(f"{self.root}/home/up")

    def small(self):
        """Many save files, half of them libraries."""
        count = 20000 // self.scale
        sizes = random.Random(7)
        objects = []
        members = []
        for number in range(count // 2):
            size = sizes.randint(1024, 65536)
            members.append(fill(f"{self.root}/home/small/f{number:05d}", size))
            objects.append(f"/home/small/f{number:05d}")
            members.append(fill(f"{self.root}/QSYS.LIB/L{number:05d}.LIB/D.FILE", size))
            objects.append(f"/QSYS.LIB/L{number:05d}.LIB")
        paths = self.file("objects", "".join(f"{path}\n" for path in objects))
        include = self.file("small", "/home/small\n/QSYS.LIB/*.LIB\n")
        config = self.file("fetch", "".join(
            f'url = "ftp://FRED:secret@{ADDRESS}/{member[len(self.root):]}"\noutput = "{self.work}/copies/{number}"\n'
            for number, member in enumerate(members)))
        os.makedirs(f"{self.work}/copies", exist_ok=True)
        server = self.serve()
        common = ["-i", include, "-e", self.no_system, "-m", "0", "-p", "no", "-b", f"{self.work}/archive"]
        title = f"Backup of {count} objects of 1 to 64 KiB (curl only fetches the files, nothing is saved for it)"
        medians, _ = self.compare(title, {
            "vondral -x no": self.vondral(*common, "-x", "no"),
            "vondral -x yes": self.vondral(*common, "-x", "yes"),
            "floor, the same commands": self.floor("save", paths, f"{self.work}/copy"),
            "curl": ["curl", "-s", "-K", config],
        })
        floor = medians["floor, the same commands", "wall"]
        self.targets.add("small objects in one session: wall time, of the floor's", floor, 1.05)
        threaded = floor / medians["vondral -x yes", "wall"]
        self.targets.add("small objects, --threading: wall time, of the floor's", threaded, 0.55)
        self.stop(server)
        for folder in ("root/home/small", "root/QSYS.LIB", "copies"):
            shutil.rmtree(f"{self.work}/{folder}")
        os.makedirs(f"{self.root}/QSYS.LIB")

    def listing(self):
        """Large listings; the save at the end of each run is refused at once."""
        print("\n### Listing\n")
        print("| | wall s | client CPU s | CPU ns an entry | peak MiB | bytes an entry |")
        print("|---|---|---|---|---|---|")
        counts = [count // self.scale for count in (10000, 100000, 1000000)]
        for count in counts:
            touch(f"{self.root}/home/d{count}", count)
        for number in range(10000 // self.scale):
            touch(f"{self.root}/home/tree/a{number % 100:02d}/b{number // 100:03d}", 2)
        server = self.serve("locked:/home/tree", *(f"locked:/home/d{count}" for count in counts))
        base = self.row("nothing", "none", 0, self.no_system, 0)
        for count in counts:
            peak = self.row(f"{count} entries in one directory", f"d{count}", count, self.no_system, base)
        name = len("object0000000.txt")
        self.targets.add("listing: bytes an entry, its name left out", (peak - base) * MIB / counts[-1] - name, 120)
        directories = 10000 // self.scale
        self.row(f"a tree of {directories} directories", "tree", directories * 3, self.no_system, base)
        middle = counts[1]
        for lines in (1, 10, 100):
            others = "".join(f"/home/other{n}/x*\n" for n in range(lines - 2))
            text = f"/Security Data\n/System Configuration\n{others}"
            exclude = self.file(f"exclude{lines}", text if lines > 1 else "/Security Data\n")
            self.row(f"{middle} entries, {lines} exclude lines", f"d{middle}", middle, exclude, base)
        self.row(f"{middle} entries, --date", f"d{middle}", middle, self.no_system, base, "-d", "1")
        self.stop(server)

    def row(self, title, name, entries, exclude, base, *more):
        """Prints a row. Returns the peak in MiB."""
        include = self.file("listed", f"/home/{name}\n")
        runs = [Run(self.vondral("-b", "/dev/null", "-i", include, "-e", exclude, *more), ok=(0, 1, 2, 255))
                for _ in range(self.rounds)]
        wall = statistics.median(run.wall for run in runs)
        cpu = statistics.median(run.cpu for run in runs)
        memory = statistics.median(run.memory for run in runs)
        each = f"{cpu / entries * 1e9:.0f}" if entries else ""
        weight = f"{(memory - base) * MIB / entries:.0f}" if entries else ""
        print(f"| {title} | {wall:.3f} | {cpu:.3f} | {each} | {memory:.1f} | {weight} |", flush=True)
        return memory

    def steps(self):
        """The single steps, each alone."""
        print("\n### Single steps\n\n| | CPU ns | million a second |\n|---|---|---|")
        report = subprocess.run([f"{self.build}/micro", "--benchmark_format=json", "--benchmark_repetitions=3",
                                 "--benchmark_report_aggregates_only=true"], stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL, check=True).stdout
        units = {"ns": 1, "us": 1e3, "ms": 1e6}
        took = {}
        for each in json.loads(report)["benchmarks"]:
            if each["aggregate_name"] != "median":
                continue
            took[each["run_name"]] = nanoseconds = each["cpu_time"] * units[each["time_unit"]]
            rate = each.get("items_per_second", 1e9 / nanoseconds)
            print(f"| {each['run_name']} | {nanoseconds:.0f} | {rate / 1e6:.2f} |")
        plain = took["ParseAndPlace/0"]
        self.targets.add("listing: million entries a second", 100000 / plain * 1e3, 3, at_least=True)
        self.targets.add("listing with --date, of the time without", took["ParseAndPlaceDated"] / plain, 1.3)
        self.targets.add("listing with an exclude line, of the time without", took["ParseAndPlace/1"] / plain, 1.2)

    def nights(self):
        count, paths = 1000 // self.scale, 100000
        print(f"\n### {count} nights of {paths} paths\n\n| | s |\n|---|---|")
        took = nights.measure(f"{self.build}/vondral-nightly", count, paths)
        for name, each in took.items():
            print(f"| vondral-nightly, {name} | {each:.3f} |")
        for name in ("find a path", "find a name", "status"):
            self.targets.add(f"vondral-nightly, {name}: seconds", took[name], 1)


def machine():
    """One line: what the figures were measured on."""
    with open("/proc/cpuinfo") as file:
        model = next(line.split(":")[1].strip() for line in file if line.startswith("model name"))
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / (1 << 30)
    with open("/proc/sys/net/ipv4/tcp_congestion_control") as file:
        congestion = file.read().strip()
    return f"{os.cpu_count()} processors {model}, {memory:.0f} GiB, Linux {os.uname().release}, TCP {congestion}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--scale", type=int, default=1)
    parser.add_argument("--against", metavar="BUILD", help="another build, whose transfers are measured beside these")
    parser.add_argument("--only", choices=["backup", "restore", "tls", "small", "listing", "steps", "nights"],
                        help="one part of the tables")
    words = sys.argv[1:]
    at = words.index("--") if "--" in words else len(words)
    options = parser.parse_args(words[:at])
    print(machine())
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    memory = "/dev/shm" if shutil.disk_usage("/dev/shm").free > 8 << 30 else None
    with tempfile.TemporaryDirectory(dir=memory) as work:
        bench = Bench(options, work, words[at + 1:])
        try:
            for part in (bench.backup, bench.restore, bench.tls, bench.small, bench.listing, bench.steps, bench.nights):
                if options.only in (None, part.__name__):
                    part()
            bench.targets.print()
            if options.scale != 1:
                print("\nThe targets are meant for --scale 1.")
        finally:
            for server in bench.servers:
                server.kill()


main()
