"""The targets for the figures: a question, the measured value and its upper or lower limit. Targets
of cases that were not measured are omitted."""

import dataclasses
import statistics

from .trial import median

MIB = 1 << 20


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


def ram_targets(case):
    aria2 = ratio(case, "ravelin", "aria2 -x5")
    yield Target("plain to RAM, wall, vs. aria2", aria2, 0.60)
    yield Target("plain to RAM, wall, vs. curl", ratio(case, "ravelin", "curl"), 0.85)
    yield Target("plain, CPU seconds, vs. curl", ratio(case, "ravelin", "curl", "cpu"), 1.1)
    yield Target("plain, peak memory, vs. aria2", ratio(case, "ravelin", "aria2 -x5", "peak"), 1.0)


def disk_targets(case):
    yield Target("plain to disk, flushed, wall, vs. aria2 without a flush",
                 ratio(case, "ravelin", "aria2 -x5"), 1.0)
    yield Target("plain to disk, peak memory", median(case["clients"]["ravelin"], "peak") / MIB,
                 20, " MiB")


def tls_targets(case):
    yield Target("TLS, wall, vs. aria2", ratio(case, "ravelin", "aria2 -x5"), 1.0)
    yield Target("TLS, wall, vs. curl", ratio(case, "ravelin", "curl"), 1.1)


def limited_targets(case):
    yield Target("limited server, wall, vs. aria2", ratio(case, "ravelin", "aria2 -x5"), 1.03)
    yield Target("limited server, wall, vs. one connection",
                 ratio(case, "ravelin", "ravelin --no-split"), 0.21)


def far_targets(cases):
    for size, name in (("64 KiB", "ravelin -j5"), ("64 KiB", "ravelin -j5 --no-split"),
                       ("1 MiB", "ravelin -j5")):
        many = cases[f"40 files of {size}"]
        yield Target(f"60 ms away, 40 files of {size}, {name}, wall, vs. aria2 -j5",
                     ratio(many, name, "aria2 -j5"), 1.8)
        yield Target(f"60 ms away, 40 files of {size}, {name}, connections",
                     many["clients"][name]["connections"], 60)
    for line in ("", ", slow start"):
        yield Target(f"60 ms away, 1 MiB{line}, wall, vs. curl",
                     ratio(cases[f"1 MiB{line}"], "ravelin", "curl"), 1.8)
        yield Target(f"60 ms away, 20 MiB{line}, wall, vs. aria2",
                     ratio(cases[f"20 MiB{line}"], "ravelin", "aria2 -x5"), 1.2)


def home_targets(case):
    yield Target("40 Mbit/s, flushes of the file", case["clients"]["ravelin"]["flushes"], 150)
    yield Target("40 Mbit/s, wall, vs. curl", ratio(case, "ravelin", "curl"), 1.03)


def kills_targets(case):
    for name, costs in case["costs"].items():
        yield Target(f"three kills, bytes that come {name}, received per byte of file",
                     statistics.median(costs), 1.12)


def small_targets(cases):
    for name, case in cases.items():
        if isinstance(case, dict):
            yield Target(f"{case['files']} files of {name}, wall, vs. aria2 -j5",
                         ratio(case, "ravelin -j5 --no-split", "aria2 -j5"), 1.5)


def many_targets(case):
    for program in ("ravelin", "ravelin --no-split"):
        yield Target(f"{program}, 100 at once, throughput vs. one",
                     ratio(case, f"{program}, 1 at once", f"{program}, 100 at once"), 0.9,
                     at_least=True)


def memory_targets(case):
    sizes = sorted(case["sizes"], key=int)
    first, last = (median(case["sizes"][size]["ravelin"], "peak") for size in (sizes[0], sizes[-1]))
    times = int(sizes[-1]) // int(sizes[0])
    yield Target(f"peak memory, file {times} times as large", last / first, 1.1)


def main_thread_targets(case):
    for name, one in case["figures"].items():
        yield Target(f"main thread blocked, 99th percentile, {name}", one["wall_p99_us"] / 1e3,
                     1, " ms")


def waiting_targets(case):
    count = case["count"]
    for what, description in (("claim", "claim"), ("release_waiting", "release a waiting one"),
                        ("release_running", "release the running one")):
        yield Target(f"{count} waiting, {description}, 99th percentile",
                     case["figures"][f"{what}_p99_us_of_{count}"] / 1e3, 1, " ms")


ALL = {"ram": ram_targets, "disk": disk_targets, "tls": tls_targets, "limited": limited_targets,
       "far": far_targets, "home": home_targets, "kills": kills_targets,
       "small": small_targets, "many": many_targets, "memory": memory_targets,
       "main-thread": main_thread_targets, "waiting": waiting_targets}


def targets(cases):
    return [one for name, make in ALL.items() if name in cases for one in make(cases[name])]
