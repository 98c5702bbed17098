"""What the figures are held against. A target is a question, a figure, and the most or the least
that it may be; one whose case was not measured is left out."""

import dataclasses

from .trial import median

GIB = 1 << 30


@dataclasses.dataclass
class Target:
    question: str
    value: float
    limit: float
    unit: str = ""
    at_least: bool = False

    @property
    def met(self):
        return self.value >= self.limit if self.at_least else self.value <= self.limit

    def row(self):
        sign = "≥" if self.at_least else "≤"
        return (f"| {self.question} | {self.value:.3g}{self.unit} | {sign} {self.limit:g}"
                f"{self.unit} | {'met' if self.met else '**missed**'} |")


def ratio(case, mine, other, key="wall"):
    return median(case["clients"][mine], key) / median(case["clients"][other], key)


def of_ram(case):
    aria2 = ratio(case, "ravelin", "aria2 -x5")
    yield Target("plain into RAM, wall, to aria2", aria2, 0.60)
    yield Target("plain into RAM, wall, to curl", ratio(case, "ravelin", "curl"), 0.85)
    yield Target("plain, CPU seconds, to curl", ratio(case, "ravelin", "curl", "cpu"), 1.1)
    yield Target("plain, peak memory, to aria2", ratio(case, "ravelin", "aria2 -x5", "peak"), 1.0)


def of_disk(case):
    yield Target("plain onto disk, flushed, wall, to aria2 that does not flush",
                 ratio(case, "ravelin", "aria2 -x5"), 1.0)


def of_tls(case):
    yield Target("TLS, wall, to aria2", ratio(case, "ravelin", "aria2 -x5"), 1.0)
    yield Target("TLS, wall, to curl", ratio(case, "ravelin", "curl"), 1.1)


def of_limited(case):
    yield Target("limited server, wall, to aria2", ratio(case, "ravelin", "aria2 -x5"), 1.03)
    yield Target("limited server, wall, to one connection",
                 ratio(case, "ravelin", "ravelin --no-split"), 0.21)


def of_small(cases):
    for name, case in cases.items():
        if isinstance(case, dict):
            yield Target(f"{case['files']} files of {name}, wall, to aria2 -j5",
                         ratio(case, "ravelin -j5 --no-split", "aria2 -j5"), 1.5)


def of_many(case):
    for program in ("ravelin", "ravelin --no-split"):
        yield Target(f"{program}, 100 at once, throughput to one",
                     ratio(case, f"{program}, 1 at once", f"{program}, 100 at once"), 0.9,
                     at_least=True)


def of_memory(case):
    sizes = sorted(case["sizes"], key=int)
    first, last = (median(case["sizes"][size]["ravelin"], "peak") for size in (sizes[0], sizes[-1]))
    times = int(sizes[-1]) // int(sizes[0])
    yield Target(f"peak memory of a file {times} times as large", last / first, 1.1)


def of_main_thread(case):
    for name, one in case["figures"].items():
        yield Target(f"main thread held at the 99th percentile, {name}", one["wall_p99_us"] / 1e3,
                     1, " ms")


def of_waiting(case):
    count = case["count"]
    for what, words in (("claim", "claim"), ("release_waiting", "release one that waits"),
                        ("release_running", "release the one that runs")):
        yield Target(f"{count} waiting, {words}, 99th percentile",
                     case["figures"][f"{what}_p99_us_of_{count}"] / 1e3, 1, " ms")


ALL = {"ram": of_ram, "disk": of_disk, "tls": of_tls, "limited": of_limited, "small": of_small,
       "many": of_many, "memory": of_memory, "main-thread": of_main_thread, "waiting": of_waiting}


def targets(cases):
    return [one for name, of in ALL.items() if name in cases for one in of(cases[name])]
