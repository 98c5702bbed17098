"""Tables for people, from the samples that are kept in `docs/benchmarks/results.json`."""

import json
import statistics

from . import pictures
from .targets import targets
from .trial import median

MIB, GIB = 1 << 20, 1 << 30

TITLES = {
    "ram": "One file into RAM", "disk": "One file onto disk", "tls": "Over TLS, into RAM",
    "limited": "From a server that gives each connection 10 MiB/s",
    "split": "Five connections or one, into RAM", "small": "Many small files, five at once",
    "many": "1, 10 and 100 downloads at once", "memory": "Peak memory by the size of the file",
    "resume": "Going on with 10 GiB that are nearly complete",
    "main-thread": "How long the main thread is held", "micro": "Single steps",
    "waiting": "Thousands of operations that wait",
}

WORDS = {
    "ram": "Served from memory and written to memory: what the programs themselves cost.",
    "disk": "Ours flushes each chunk before it counts it, so that a power cut loses nothing that "
            "is on record. The others leave the bytes to the system's cache, and end before they "
            "are on the disk; `then sync` includes the time until they are.",
    "tls": "One cipher for all (TLS 1.3, AES-256-GCM).",
    "split": "What the four further connections cost, or bring, where the network is no limit.",
    "small": "Through one process, each file over one connection.",
    "many": "The same bytes as one, ten and a hundred files in one process, the limit raised.",
    "resume": "The record comes from a real interrupted start and was then moved forward, so that "
              "each part lacks its last MiB. `first byte` is from the start of the process to the "
              "first report of progress.",
    "main-thread": "Each call of `MainQueue::drain()` that had work, in a loop of the "
                   "application's own, during one download at full speed. Wall time counts what "
                   "other threads and the server took from the thread on this machine; CPU time "
                   "does not.",
    "micro": "Medians; CPU time is that of all threads together.",
    "waiting": "One operation runs, the others wait for its slot; 200 times each. "
               "`release` is the whole piece of main-thread work in which the destination was "
               "given back and the final event was told.",
}


class Results:
    """What was measured so far; figures of another machine are not mixed in."""

    def __init__(self, folder, machine):
        self.file = folder / "results.json"
        kept = json.loads(self.file.read_text()) if self.file.exists() else {}
        same = kept.get("machine") == machine
        self.machine = machine
        self.cases = kept["cases"] if same else {}
        self.versions = kept.get("versions", {}) if same else {}
        self.measured_now = {}

    def add(self, name, result, versions):
        self.cases[name] = self.measured_now[name] = result
        self.versions = versions

    def save(self):
        self.file.parent.mkdir(parents=True, exist_ok=True)
        self.file.write_text(json.dumps(
            {"machine": self.machine, "versions": self.versions, "cases": self.cases},
            indent=1) + "\n")


def size_words(count):
    return f"{count / GIB:.3g} GiB" if count >= GIB else f"{count / MIB:.3g} MiB"


def counted(rounds):
    return "1 round" if rounds == 1 else f"{rounds} rounds"


def spread(values):
    return f"{min(values):.2f} to {max(values):.2f}"


def table(head, rows):
    align = ["---"] + ["---:"] * (len(head) - 1)
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, align, *rows]) + "\n"


def client_table(case):
    """Wall time, ratio, processor time and memory of each client."""
    clients = case["clients"]
    ours = median(next(iter(clients.values())), "wall")
    flushes = any("flushes" in one for one in clients.values())
    threads = any(max(one.get("threads", [0])) for one in clients.values())
    head = ["", "wall s", "least to most", "MiB/s", "ours is", "CPU s", "CPU s per GiB",
            "peak MiB"] + ["flushes"] * flushes + ["threads"] * threads
    rows = []
    for name, one in clients.items():
        wall, cpu = median(one, "wall"), median(one, "cpu")
        row = [name, f"{wall:.2f}", spread(one["wall"]), f"{case['bytes'] / MIB / wall:.0f}",
               f"{ours / wall:.2f}", f"{cpu:.2f}", f"{cpu / (case['bytes'] / GIB):.2f}",
               f"{median(one, 'peak') / MIB:.1f}"]
        row += [str(one.get("flushes", ""))] * flushes
        row += [f"{median(one, 'threads'):.0f}"] * threads
        rows.append(row)
    return table(head, rows)


def of_many(case):
    clients = case["clients"]
    words = client_table(case).replace("ours is", "first is")
    for program in ("ravelin", "ravelin --no-split"):
        one, most = (clients[f"{program}, {count} at once"] for count in (1, 100))
        each = (median(most, "peak") - median(one, "peak")) / 99 / 1024
        threads = (median(most, "threads") - median(one, "threads")) / 99
        words += f"\n`{program}`: {each:.0f} KiB and {threads:.1f} threads for each further one.\n"
    return words


def of_small(cases):
    return "\n".join(f"{case['files']} files of {name}:\n\n{client_table(case)}"
                     for name, case in cases.items() if isinstance(case, dict))


def of_memory(case):
    sizes = sorted(case["sizes"], key=int)
    names = list(case["sizes"][sizes[0]])
    return table(["peak MiB"] + [size_words(int(size)) for size in sizes],
                 [[name] + [f"{median(case['sizes'][size][name], 'peak') / MIB:.1f}"
                            for size in sizes] for name in names])


def of_resume(case):
    def cell(values):
        known = [value for value in values if value is not None]
        return f"{statistics.median(known) * 1e3:.0f}" if known else ""
    return table(["", "first byte, ms", f"to the end ({size_words(case['missing'])} missing), ms"],
                 [[name, cell(one["first"]), cell(one["wall"])]
                  for name, one in case["clients"].items()])


def of_main_thread(case):
    rows = []
    for name, one in case["figures"].items():
        for kind in ("wall", "cpu"):
            rows.append([f"{name}, {'wall' if kind == 'wall' else 'CPU'} time"]
                        + [f"{one[f'{kind}_{at}_us'] / 1e3:.3f}" for at in ("p50", "p99", "max")])
    words = table(["ms", "median", "99th percentile", "longest"], rows)
    for name, one in case["figures"].items():
        words += (f"\n{name}: {size_words(case['bytes'])} in {one['seconds']:.2f} s, "
                  f"{one['jobs']:.0f} pieces of work in {one['drains']:.0f} calls, "
                  f"{one['busy_share'] * 100:.1f}% of the time on the processor.\n")
    return words


def of_micro(case):
    rows = []
    for name in case["figures"]["RAM"]:
        row = [name.replace("_", " ").replace("/bytes:", ", bytes: ").replace("/real time", "")]
        for where in ("RAM", "disk"):
            one = case["figures"][where][name]
            row += [f"{one['wall_ns'] / 1e3:.1f}", f"{one['cpu_ns'] / 1e3:.1f}"]
        rows.append(row)
    return table(["µs", "wall, RAM", "CPU, RAM", "wall, disk", "CPU, disk"], rows)


def of_waiting(case):
    count, figures = case["count"], case["figures"]
    rows = []
    for what in ("claim", "release_waiting", "release_running"):
        for waiting in (1, count):
            rows.append([f"{what.replace('_', ', ')}, {waiting} waiting"]
                        + [f"{figures[f'{what}_{at}_us_of_{waiting}'] / 1e3:.3f}"
                           for at in ("p50", "p99", "max")])
    return table(["ms", "median", "99th percentile", "longest"], rows) + (
        f"\nEach waiting operation takes {figures['memory_per_waiting_kib']:.1f} KiB, of which "
        f"{figures['heap_per_waiting_kib']:.1f} KiB are heap, and "
        f"{figures['threads_per_waiting']:.2g} threads. `cancel_all` with {count} waiting: "
        f"{figures['cancel_all_call_ms']:.0f} ms in the call, "
        f"{figures['cancel_all_until_ended_ms']:.0f} ms until all have ended.\n")


TABLES = {"small": of_small, "many": of_many, "memory": of_memory, "resume": of_resume,
          "main-thread": of_main_thread, "micro": of_micro, "waiting": of_waiting}


def tables(cases):
    words = []
    for name in TITLES:
        if name not in cases:
            continue
        case = cases[name]
        size = f", {size_words(case['bytes'])}" if "bytes" in case and name != "resume" else ""
        explained = WORDS[name] + "\n\n" if name in WORDS else ""
        words.append(f"## {TITLES[name]}{size}\n\n" + explained
                     + TABLES.get(name, client_table)(case)
                     + f"\n<sub>{counted(case['rounds'])}, {case['date']}, {case['commit']}; "
                     f"`script/bench {name}`</sub>\n")
    return "\n".join(words)


def target_table(cases):
    rows = targets(cases)
    if not rows:
        return ""
    missed = sum(not one.met for one in rows)
    return ("| target | measured | wanted | |\n|---|---:|---:|---|\n"
            + "\n".join(one.row() for one in rows)
            + f"\n\n{len(rows) - missed} met, {missed} missed.\n")


def panels_of(cases, names, value):
    found = []
    for name in names:
        if name in cases:
            rows = [(client, value(cases[name], one), client.startswith("ravelin"))
                    for client, one in cases[name]["clients"].items()]
            found.append((f"{TITLES[name]}, {size_words(cases[name]['bytes'])}", rows))
    return found


def wall(_, one):
    return median(one, "wall")


def draw(folder, cases):
    """The pictures for which there are figures; returns their names and captions."""
    small = cases.get("small", {})
    drawings = {
        "time": ("Wall time: shorter is better", "s",
                 panels_of(cases, ("ram", "disk", "tls", "limited"), wall)),
        "cpu": ("Processor time of the client", "s per GiB", panels_of(
            cases, ("ram", "tls"), lambda case, one: median(one, "cpu") / case["bytes"] * GIB)),
        "memory": ("Peak memory", "MiB", panels_of(
            cases, ("ram", "tls"), lambda _, one: median(one, "peak") / MIB)),
        "small-files": ("Wall time of many small files", "s", [
            (f"{case['files']} files of {name}",
             [(client, median(one, "wall"), client.startswith("ravelin"))
              for client, one in case["clients"].items()])
            for name, case in small.items() if isinstance(case, dict)]),
        "many": ("All bytes together: longer is better", "MiB/s", panels_of(
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
    text = ["# Measured against others\n",
            "Written by `script/bench`, which measures again; `script/bench --quick` shows the "
            "same on small files in less than two minutes, `script/bench CASE...` measures some "
            "of the cases anew. What decides the speed, and what was tried, stands in "
            "[speed.md](speed.md). All clients fetch in turns, each round begun by another one, "
            "after one round to warm up whose files are compared with the served ones. Figures "
            "are medians of the rounds. *Ours is* 0.50 where ours took half the time.\n",
            f"{machine['cores']} cores ({machine['processor']}), {machine['memory']} of memory, "
            f"{machine['kernel']}; RAM is {machine['RAM']}, the disk {machine['disk']}. The server "
            "is one nginx process on the loopback interface of the same machine, which serves from "
            "memory and shares the cores with the client.\n",
            ", ".join(f"{name} {number}" for name, number in versions.items()) + ".\n",
            "## Targets\n", target_table(results.cases)]
    text += [f"![{caption}](benchmarks/{name}.svg)\n" for name, caption in drawn]
    text.append(tables(results.cases))
    (docs / "benchmarks.md").write_text("\n".join(text))
