"""Writes docs/benchmarks.md from the samples in docs/benchmarks/results.json."""

import json
import statistics

from . import pictures
from .targets import targets
from .trial import median

MIB, GIB = 1 << 20, 1 << 30

TITLES = {
    "ram": "One file to RAM", "disk": "One file to disk", "tls": "TLS, to RAM",
    "limited": "Server limited to 10 MiB/s per connection",
    "split": "Five connections or one, to RAM",
    "far": "A server 60 ms away, TLS, to RAM", "home": "A line of 40 Mbit/s, TLS, to RAM",
    "kills": "Killed three times, to disk", "small": "Many small files, five at once",
    "many": "1, 10 and 100 downloads at once", "memory": "Peak memory by file size",
    "resume": "Resuming 10 GiB that are nearly complete",
    "main-thread": "Time that the main thread is blocked", "micro": "Single steps",
    "waiting": "Thousands of waiting operations",
}

NOTES = {
    "ram": "Served from memory and written to memory: the cost of the programs themselves.",
    "disk": "Ravelin flushes each chunk before it records it, so that a power failure loses "
            "nothing that is recorded. The others leave the bytes in the page cache and exit "
            "before they are on disk; `then sync` includes the time until they are.",
    "tls": "All clients use the same cipher (TLS 1.3, AES-256-GCM).",
    "split": "The cost or gain of four more connections when the network is not the limit.",
    "far": "A relay delays each byte by 30 ms in either direction. The TCP handshake is not "
           "delayed, except with slow start: there the server may have 14,600 bytes underway on a "
           "new connection, and twice as many after each round trip. The connections are those of "
           "one run.",
    "home": "All connections share the line, which delays each byte by 10 ms. The flushes are "
            "those of the file; the record has two more each time that it is saved.",
    "kills": "A relay passes on 50 MB/s. The program is killed three times in the course of the "
             "download and then allowed to finish. In bursts: 5 MB every 0.1 s.",
    "small": "One process, one connection per file.",
    "many": "The same number of bytes as 1, 10 and 100 files in one process, with a raised limit.",
    "resume": "The record is from a real interrupted download, edited so that only the last MiB of "
              "each part is missing. `first byte` is the time from the start of the process to the "
              "first progress report.",
    "main-thread": "Each `MainQueue::drain()` call that had work, in an application's own loop, "
                   "during one download at full speed. Wall time includes time taken by other "
                   "threads and the server on this machine; CPU time does not.",
    "micro": "Medians. CPU time is that of all threads.",
    "waiting": "One operation runs and the others wait for its slot; 200 samples each. `release` "
               "is the main-thread work that releases the destination and reports the final "
               "event.",
}


class Results:
    """The results so far. Results of another machine are dropped."""

    def __init__(self, folder, machine):
        self.file = folder / "results.json"
        kept = json.loads(self.file.read_text()) if self.file.exists() else {}
        same = kept.get("machine") == machine
        self.machine = machine
        self.cases = kept["cases"] if same else {}
        self.versions = kept.get("versions", {}) if same else {}
        self.new_cases = {}

    def add(self, name, result, versions):
        self.cases[name] = self.new_cases[name] = result
        self.versions = versions

    def save(self):
        self.file.parent.mkdir(parents=True, exist_ok=True)
        self.file.write_text(json.dumps(
            {"machine": self.machine, "versions": self.versions, "cases": self.cases},
            indent=1) + "\n")


def format_size(count):
    return f"{count / GIB:.3g} GiB" if count >= GIB else f"{count / MIB:.3g} MiB"


def format_rounds(rounds):
    return "1 round" if rounds == 1 else f"{rounds} rounds"


def format_range(values):
    return f"{min(values):.2f} to {max(values):.2f}"


def table(head, rows):
    align = ["---"] + ["---:"] * (len(head) - 1)
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, align, *rows]) + "\n"


def client_table(case):
    """Wall time, ratio, CPU time and memory of each client."""
    clients = case["clients"]
    ours = median(next(iter(clients.values())), "wall")
    flushes = any("flushes" in one for one in clients.values())
    threads = any(max(one.get("threads", [0])) for one in clients.values())
    connections = any("connections" in one for one in clients.values())
    head = ["", "wall s", "min to max", "MiB/s", "ours is", "CPU s", "CPU s per GiB",
            "peak MiB"] + ["flushes"] * flushes + ["threads"] * threads \
        + ["connections"] * connections
    rows = []
    for name, one in clients.items():
        wall, cpu = median(one, "wall"), median(one, "cpu")
        row = [name, f"{wall:.2f}", format_range(one["wall"]), f"{case['bytes'] / MIB / wall:.0f}",
               f"{ours / wall:.2f}", f"{cpu:.2f}", f"{cpu / (case['bytes'] / GIB):.2f}",
               f"{median(one, 'peak') / MIB:.1f}"]
        row += [str(one.get("flushes", ""))] * flushes
        row += [f"{median(one, 'threads'):.0f}"] * threads
        row += [f"{one.get('connections', 0):.3g}"] * connections
        rows.append(row)
    return table(head, rows)


def many_table(case):
    clients = case["clients"]
    text = client_table(case).replace("ours is", "first is")
    for program in ("ravelin", "ravelin --no-split"):
        one, hundred = (clients[f"{program}, {count} at once"] for count in (1, 100))
        each = (median(hundred, "peak") - median(one, "peak")) / 99 / 1024
        threads = (median(hundred, "threads") - median(one, "threads")) / 99
        text += (f"\n`{program}`: {each:.0f} KiB and {threads:.1f} threads per additional "
                 "download.\n")
    return text


def small_table(cases):
    return "\n".join(f"{case['files']} files of {name}:\n\n{client_table(case)}"
                     for name, case in cases.items() if isinstance(case, dict))


def far_table(cases):
    text = "\n".join(f"{name}:\n\n{client_table(case)}" for name, case in cases.items()
                     if isinstance(case, dict) and name != "relay")
    probe = cases["relay"]
    speed = probe["bytes"] / MIB / median(probe["clients"]["curl"], "wall")
    return text + f"\nThe relay passes {speed:.0f} MiB/s over one connection.\n"


def kills_table(case):
    return table(["bytes received per byte of file", "median", "least", "most"],
                 [[f"bytes come {name}"] + [f"{value:.3f}" for value in (
                     statistics.median(costs), min(costs), max(costs))]
                  for name, costs in case["costs"].items()])


def memory_table(case):
    sizes = sorted(case["sizes"], key=int)
    names = list(case["sizes"][sizes[0]])
    return table(["peak MiB"] + [format_size(int(size)) for size in sizes],
                 [[name] + [f"{median(case['sizes'][size][name], 'peak') / MIB:.1f}"
                            for size in sizes] for name in names])


def resume_table(case):
    def cell(values):
        known = [value for value in values if value is not None]
        return f"{statistics.median(known) * 1e3:.0f}" if known else ""
    return table(["", "first byte, ms", f"complete ({format_size(case['missing'])} missing), ms"],
                 [[name, cell(one["first"]), cell(one["wall"])]
                  for name, one in case["clients"].items()])


def main_thread_table(case):
    rows = []
    for name, one in case["figures"].items():
        for kind in ("wall", "cpu"):
            rows.append([f"{name}, {'wall' if kind == 'wall' else 'CPU'} time"]
                        + [f"{one[f'{kind}_{at}_us'] / 1e3:.3f}" for at in ("p50", "p99", "max")])
    text = table(["ms", "median", "99th percentile", "longest"], rows)
    for name, one in case["figures"].items():
        text += (f"\n{name}: {format_size(case['bytes'])} in {one['seconds']:.2f} s, "
                  f"{one['jobs']:.0f} jobs in {one['drains']:.0f} calls, "
                  f"{one['busy_share'] * 100:.1f}% of the time on the CPU.\n")
    return text


def micro_table(case):
    rows = []
    for name in case["figures"]["RAM"]:
        row = [name.replace("_", " ").replace("/bytes:", ", bytes: ").replace("/real time", "")]
        for where in ("RAM", "disk"):
            one = case["figures"][where][name]
            row += [f"{one['wall_ns'] / 1e3:.1f}", f"{one['cpu_ns'] / 1e3:.1f}"]
        rows.append(row)
    return table(["µs", "wall, RAM", "CPU, RAM", "wall, disk", "CPU, disk"], rows)


def waiting_table(case):
    count, figures = case["count"], case["figures"]
    rows = []
    for what in ("claim", "release_waiting", "release_running"):
        for waiting in (1, count):
            rows.append([f"{what.replace('_', ', ')}, {waiting} waiting"]
                        + [f"{figures[f'{what}_{at}_us_of_{waiting}'] / 1e3:.3f}"
                           for at in ("p50", "p99", "max")])
    return table(["ms", "median", "99th percentile", "longest"], rows) + (
        f"\nEach waiting operation takes {figures['memory_per_waiting_kib']:.1f} KiB, "
        f"{figures['heap_per_waiting_kib']:.1f} KiB of it heap, and "
        f"{figures['threads_per_waiting']:.2g} threads. `cancel_all` with {count} waiting: "
        f"{figures['cancel_all_call_ms']:.0f} ms in the call, "
        f"{figures['cancel_all_until_ended_ms']:.0f} ms until all had ended.\n")


TABLES = {"far": far_table, "kills": kills_table, "small": small_table, "many": many_table,
          "memory": memory_table, "resume": resume_table,
          "main-thread": main_thread_table, "micro": micro_table, "waiting": waiting_table}


def tables(cases):
    sections = []
    for name in TITLES:
        if name not in cases:
            continue
        case = cases[name]
        size = f", {format_size(case['bytes'])}" if "bytes" in case and name != "resume" else ""
        note = NOTES[name] + "\n\n" if name in NOTES else ""
        sections.append(f"## {TITLES[name]}{size}\n\n" + note
                     + TABLES.get(name, client_table)(case)
                     + f"\n<sub>{format_rounds(case['rounds'])}, {case['date']}, {case['commit']}; "
                     f"`script/bench {name}`</sub>\n")
    return "\n".join(sections)


def target_table(cases):
    rows = targets(cases)
    if not rows:
        return ""
    missed = sum(not one.met for one in rows)
    return ("| target | measured | limit | |\n|---|---:|---:|---|\n"
            + "\n".join(one.row() for one in rows)
            + f"\n\n{len(rows) - missed} met, {missed} missed.\n")


def make_panels(cases, names, value):
    found = []
    for name in names:
        if name in cases:
            rows = [(client, value(cases[name], one), client.startswith("ravelin"))
                    for client, one in cases[name]["clients"].items()]
            found.append((f"{TITLES[name]}, {format_size(cases[name]['bytes'])}", rows))
    return found


def wall(_, one):
    return median(one, "wall")


def draw(folder, cases):
    """Draws the charts for which there are results; returns their names and captions."""
    small = cases.get("small", {})
    drawings = {
        "time": ("Wall time (less is better)", "s",
                 make_panels(cases, ("ram", "disk", "tls", "limited"), wall)),
        "cpu": ("CPU time of the client", "s per GiB", make_panels(
            cases, ("ram", "tls"), lambda case, one: median(one, "cpu") / case["bytes"] * GIB)),
        "memory": ("Peak memory", "MiB", make_panels(
            cases, ("ram", "tls"), lambda _, one: median(one, "peak") / MIB)),
        "small-files": ("Wall time of many small files", "s", [
            (f"{case['files']} files of {name}",
             [(client, median(one, "wall"), client.startswith("ravelin"))
              for client, one in case["clients"].items()])
            for name, case in small.items() if isinstance(case, dict)]),
        "many": ("Total throughput (more is better)", "MiB/s", make_panels(
            cases, ("many",), lambda case, one: case["bytes"] / MIB / median(one, "wall"))),
    }
    drawn = []
    for name, (caption, unit, panels) in drawings.items():
        if panels:
            pictures.bars(folder / f"{name}.svg", unit, panels)
            drawn.append((name, caption))
    return drawn


def write(docs, results):
    machine, versions = results.machine, results.versions
    drawn = draw(docs / "benchmarks", results.cases)
    text = ["# Benchmarks\n",
            "Written by `script/bench`. `script/bench CASE...` measures only some cases again; "
            "`script/bench --quick` takes less than two minutes with small files. [speed.md]"
            "(speed.md) explains what decides the speed and what was tried. All clients run in "
            "every round, each round starting with another one, after a warm-up round that "
            "compares the files with the served ones. Figures are medians of the rounds. *Ours is* "
            "0.50 means that ravelin took half the time of that client.\n",
            f"{machine['cores']} cores ({machine['processor']}), {machine['memory']} of memory, "
            f"{machine['kernel']}; RAM is {machine['RAM']}, the disk is {machine['disk']}. The "
            "server is a single nginx process on the loopback interface. It serves from memory and "
            "shares the cores with the client.\n",
            ", ".join(f"{name} {number}" for name, number in versions.items()) + ".\n",
            "## Targets\n", target_table(results.cases)]
    text += [f"![{caption}](benchmarks/{name}.svg)\n" for name, caption in drawn]
    text.append(tables(results.cases))
    (docs / "benchmarks.md").write_text("\n".join(text))
