"""Compares the program with others. `script/bench` builds it and then runs this.

  python3 -m bench.compare [--quick] BUILD-FOLDER [CASE...]
"""

import argparse
import datetime
import json
import os
import pathlib
import shutil
import signal
import sys
import tempfile

from . import clients, machine, report
from .cases import CASES, GIB, MIB
from .server import Server

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Bench:
    """The folders, the server and the served files of one run."""

    def __init__(self, build, quick):
        self.quick = quick
        self.rounds = 2 if quick else int(os.environ.get("BENCH_ROUNDS", "5"))
        self.build = build
        self.ravelin = build / "app/ravelin"
        self.measured = build / "bench/compare/measured"
        self.clients = clients.programs(self.ravelin)
        self.ram = pathlib.Path("/dev/shm")
        self.disk = pathlib.Path(tempfile.gettempdir())
        self._check_space()
        self._folders = [pathlib.Path(tempfile.mkdtemp(prefix="ravelin-bench-", dir=where))
                         for where in (self.ram, self.disk)]
        self._root = self._folders[0]
        (self._folders[1] / "server").mkdir()
        self.server = None

    def __enter__(self):
        self.server = Server(self._folders[1] / "server", self._root)
        return self

    def __exit__(self, *_):
        if self.server:
            self.server.stop()
        for folder in self._folders:
            shutil.rmtree(folder, ignore_errors=True)

    def _check_space(self):
        needed = self.size(2 * GIB) * 4
        free = min(shutil.disk_usage(self.ram).free, machine.memory_bytes("MemAvailable"))
        if free < needed:
            raise SystemExit(f"bench: files in {self.ram} need {needed // MIB} MiB of memory; "
                             f"{free // MIB} MiB are free")
        if shutil.disk_usage(self.disk).free < needed:
            raise SystemExit(f"bench: {needed // MIB} MiB are needed in {self.disk}; "
                             "set TMPDIR to another folder")
        if machine.file_system(self.disk).startswith("tmpfs"):
            raise SystemExit(f"bench: {self.disk} is in memory; set TMPDIR to a folder on disk")

    def say(self, text):
        print(text, flush=True)

    def size(self, full):
        return full // 8 if self.quick else full

    def served(self, size):
        """A random file of that size, in memory."""
        file = self._root / f"{size}.bin"
        if not file.exists():
            with open(file, "wb") as out:
                for start in range(0, size, 8 * MIB):
                    out.write(os.urandom(min(8 * MIB, size - start)))
        return file

    def served_folder(self, size, count):
        folder = self._root / f"{count}x{size}"
        if not folder.exists():
            folder.mkdir()
            for number in range(count):
                (folder / f"{number:03}.bin").write_bytes(os.urandom(size))
        return folder

    def sparse(self, size):
        file = self._root / "sparse.bin"
        file.touch()
        os.truncate(file, size)
        return file

    def delete_served(self):
        """Frees the memory for the next case."""
        for one in self._root.iterdir():
            shutil.rmtree(one) if one.is_dir() else one.unlink()


def parse_arguments():
    parser = argparse.ArgumentParser(prog="script/bench")
    parser.add_argument("--quick", action="store_true",
                        help="an eighth of the sizes, two rounds, no files written")
    parser.add_argument("build", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("cases", nargs="*", metavar="CASE", help=", ".join(CASES))
    options = parser.parse_args()
    for case in options.cases:
        if case not in CASES:
            parser.error(f"unknown case '{case}'; the cases are {', '.join(CASES)}")
    return options


def main():
    options = parse_arguments()
    results = report.Results(ROOT / "docs/benchmarks", machine.describe("/dev/shm",
                                                                        tempfile.gettempdir()))
    with Bench(options.build.resolve(), options.quick) as bench:
        for name in options.cases or CASES:
            bench.say(f"\n== {name}")
            result = CASES[name](bench)
            result = {"rounds": bench.rounds, **result, "commit": machine.commit(ROOT),
                      "date": datetime.date.today().isoformat()}
            results.add(name, result, machine.versions())
            bench.say(report.tables({name: result}))
            bench.delete_served()
            if not options.quick:
                results.save()
    if options.quick:
        bench.say("These are an eighth of the sizes that the targets are meant for.\n")
    bench.say(report.target_table(results.new_cases if options.quick else results.cases))
    if not options.quick:
        report.write(ROOT / "docs", results)
        bench.say("written: docs/benchmarks.md")


if __name__ == "__main__":
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda received, _: sys.exit(128 + received))
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
