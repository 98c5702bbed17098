"""Runs clients in turns, round after round, and keeps what each run took."""

import contextlib
import dataclasses
import filecmp
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import tempfile

from .clients import Client, Job


@dataclasses.dataclass
class Entry:
    """A client and what it is to fetch: served files by the path under which they are asked for."""
    client: Client
    base: str
    files: dict  # path in the link -> served file


class Trial:
    """What the runs of one case have in common."""

    def __init__(self, bench, folder, rounds):
        self.bench, self.rounds = bench, rounds
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="ravelin-bench-", dir=folder))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder, ignore_errors=True)

    def measure(self, entries, threads=False):
        """The samples of each entry by its client's name: a round to warm up, whose files are
        compared with the served ones, then those that count, each begun by another client."""
        samples = {entry.client.name: [] for entry in entries}
        for entry in entries:
            self.run(entry, threads, compare=True)
        for number in range(self.rounds):
            turn = number % len(entries)
            for entry in entries[turn:] + entries[:turn]:
                samples[entry.client.name].append(self.run(entry, threads))
            self.bench.say(f"  round {number + 1} of {self.rounds}: " + ", ".join(
                f"{name} {all_[-1]['wall']:.2f} s" for name, all_ in samples.items()))
        return {name: {key: [one[key] for one in all_] for key in all_[0]}
                for name, all_ in samples.items()}

    def run(self, entry, threads=False, compare=False):
        with self._job(entry) as job:
            measured = [self.bench.measured, *(["--threads"] if threads else [])]
            os.sync()  # what an earlier run left to be written must not be paid for by this one
            words = self._call([*measured, *entry.client.command(job)]).stdout.split()
            if int(words[0]) != 0:
                raise SystemExit(f"bench: {entry.client.name} failed with status {words[0]}:\n"
                                 + (self.folder / "errors").read_text())
            self._check(entry, job, compare)
        return {"wall": float(words[1]), "cpu": float(words[2]), "peak": int(words[3]) * 1024,
                "threads": int(words[4])}

    def count_flushes(self, entry):
        """In a run of its own, since watching system calls takes time."""
        with self._job(entry) as job:
            log = self.folder / "flushes"
            self._call(["strace", "-f", "--seccomp-bpf", "-c", "-o", log,
                        "-e", "trace=fsync,fdatasync", *entry.client.command(job)], check=True)
            return sum(int(line.split()[3]) for line in log.read_text().splitlines()
                       if re.search(r"\b(fsync|fdatasync)$", line))

    def _call(self, command, **options):
        environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", "HOME": str(self.folder),
                       "TMPDIR": str(self.folder)}
        with open(self.folder / "errors", "w") as errors:
            return subprocess.run([str(word) for word in command], env=environment, text=True,
                                  stdout=subprocess.PIPE, stderr=errors, cwd=self.folder, **options)

    @contextlib.contextmanager
    def _job(self, entry):
        target = self.folder / "target"
        target.mkdir()
        links = [entry.base + path for path in entry.files]
        listed = self.folder / "list"
        listed.write_text("".join(link + "\n" for link in links))
        try:
            yield Job(links, target, self.bench.server.ca, listed)
        finally:
            shutil.rmtree(target)

    def _check(self, entry, job, compare):
        for path, served in entry.files.items():
            got = job.file if len(entry.files) == 1 else job.folder / pathlib.PurePath(path).name
            if not got.exists():  # one link in a list keeps the name that it suggests
                got = job.folder / pathlib.PurePath(path).name
            same = got.exists() and got.stat().st_size == served.stat().st_size and (
                not compare or filecmp.cmp(got, served, shallow=False))
            if not same:
                raise SystemExit(f"bench: what {entry.client.name} made of {path} is wrong")


def median(samples, key):
    return statistics.median(samples[key])
