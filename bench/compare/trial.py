"""Runs the clients in rounds and collects the samples."""

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
    """A client and the files that it fetches."""
    client: Client
    base: str
    files: dict  # path in the link -> served file


class Trial:
    """The runs of one case."""

    def __init__(self, bench, folder, rounds):
        self.bench, self.rounds = bench, rounds
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="ravelin-bench-", dir=folder))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder, ignore_errors=True)

    def measure(self, entries, threads=False):
        """The samples by client name. A warm-up round compares the files with the served ones; in
        the measured rounds each client takes a turn at being the first."""
        samples = {entry.client.name: [] for entry in entries}
        for entry in entries:
            self.run(entry, threads, compare=True)
        for number in range(self.rounds):
            first = number % len(entries)
            for entry in entries[first:] + entries[:first]:
                samples[entry.client.name].append(self.run(entry, threads))
            self.bench.say(f"  round {number + 1} of {self.rounds}: " + ", ".join(
                f"{name} {runs[-1]['wall']:.2f} s" for name, runs in samples.items()))
        return {name: {key: [one[key] for one in runs] for key in runs[0]}
                for name, runs in samples.items()}

    def run(self, entry, threads=False, compare=False):
        with self._job(entry) as job:
            measured = [self.bench.measured, *(["--threads"] if threads else [])]
            os.sync()  # so that this run does not pay for writes of an earlier one
            fields = self._call([*measured, *entry.client.command(job)]).stdout.split()
            if int(fields[0]) != 0:
                raise SystemExit(f"bench: {entry.client.name} failed with status {fields[0]}:\n"
                                 + (self.folder / "errors").read_text())
            self._check(entry, job, compare)
        return {"wall": float(fields[1]), "cpu": float(fields[2]), "peak": int(fields[3]) * 1024,
                "threads": int(fields[4])}

    def count_flushes(self, entry, of_files=False):
        """All, or only those of the downloaded files and not of records and directories. In a
        separate run, since tracing is slow."""
        with self._job(entry) as job:
            log = self.folder / "flushes"
            self._call(["strace", "-f", "--seccomp-bpf", "-y", "-o", log,
                        "-e", "trace=fsync,fdatasync", *entry.client.command(job)], check=True)
            flushed = re.findall(r"\b(?:fsync|fdatasync)\(\d+<([^>]*)>", log.read_text())
            names = {job.file.name, *(pathlib.PurePath(path).name for path in entry.files)}
            return sum(not of_files or pathlib.PurePath(path).name in names for path in flushed)

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
            if not got.exists():  # a list of one link keeps the link's name
                got = job.folder / pathlib.PurePath(path).name
            same = got.exists() and got.stat().st_size == served.stat().st_size and (
                not compare or filecmp.cmp(got, served, shallow=False))
            if not same:
                raise SystemExit(f"bench: {entry.client.name} did not download {path} correctly")


def median(samples, key):
    return statistics.median(samples[key])
