"""The measured cases. Each returns its samples by client and other data for its tables."""

import contextlib
import filecmp
import json
import os
import random
import re
import signal
import subprocess
import time

from .relay import Relay
from .trial import Entry, Trial, median

MIB, GIB = 1 << 20, 1 << 30


def one_file(bench, size, where, base, names, count_flushes_of=()):
    """Measures one file by each client, and counts the flushes of the named ones."""
    served = bench.served(size)
    with Trial(bench, where, bench.rounds) as trial:
        entries = {name: Entry(bench.clients[name], base, {f"/{served.name}": served})
                   for name in names}
        result = {"bytes": size, "clients": trial.measure(list(entries.values()))}
        for name in count_flushes_of:
            result["clients"][bench.clients[name].name]["flushes"] = \
                trial.count_flushes(entries[name])
    return result


def ram(bench):
    return one_file(bench, bench.size(2 * GIB), bench.ram, bench.server.plain,
                    ["ours", "curl", "aria2", "aria2 prealloc", "axel", "wget2"], ["ours"])


def disk(bench):
    return one_file(bench, bench.size(2 * GIB), bench.disk, bench.server.plain,
                    ["ours", "curl", "aria2", "aria2 sync", "aria2 prealloc", "axel"], ["ours"])


def tls(bench):
    return one_file(bench, bench.size(GIB), bench.ram, bench.server.tls,
                    ["ours", "curl", "aria2", "axel", "wget2"], ["ours"])


def limited(bench):
    return one_file(bench, bench.size(200 * MIB), bench.ram, bench.server.limited,
                    ["ours", "ours one", "aria2", "axel"], ["ours", "ours one"])


def split(bench):
    names = ["ours", "ours one", "aria2", "aria2 one", "wget2", "wget2 split"]
    if bench.quick:
        names.pop()  # it takes ten times as long as the others
    return one_file(bench, bench.size(GIB), bench.ram, bench.server.plain, names,
                    ["ours", "ours one"])


def small(bench, size, where):
    count = 200 if not bench.quick else 50
    folder = bench.served_folder(size, count)
    files = {f"/{folder.name}/{one.name}": one for one in sorted(folder.iterdir())}
    with Trial(bench, where, bench.rounds) as trial:
        entries = [Entry(bench.clients[name], bench.server.plain, files)
                   for name in ("ours list", "aria2 list", "curl list", "wget2 list")]
        result = {"bytes": count * size, "files": count, "clients": trial.measure(entries)}
        result["clients"][entries[0].client.name]["flushes"] = trial.count_flushes(entries[0])
    return result


def small_cases(bench):
    return {f"{size // 1024} KiB, {name}": small(bench, size, where)
            for size in (64 * 1024, MIB) for name, where in (("RAM", bench.ram),
                                                             ("disk", bench.disk))}


def through_relays(bench, files, base, names, rounds, flushes=False, **line):
    """Each client has a relay of its own, which counts its connections."""
    size = sum(served.stat().st_size for served in files.values())
    with Trial(bench, bench.ram, rounds) as trial, contextlib.ExitStack() as stack:
        relays = {name: stack.enter_context(Relay(base, **line)) for name in names}
        entries = {name: Entry(bench.clients[name], relays[name].base, files) for name in names}
        clients = trial.measure(list(entries.values()))
        for name, entry in entries.items():
            one = clients[entry.client.name]
            one["connections"] = relays[name].connections / (rounds + 1)  # with the warm-up
            if flushes and entry.client.ours:
                one["flushes"] = trial.count_flushes(entry, of_files=True)
    return {"bytes": size, "files": len(files), "clients": clients}


def far(bench):
    """Short downloads from a server whose answers take 60 ms."""
    small, large = (
        {f"/{folder.name}/{one.name}": one for one in sorted(folder.iterdir())}
        for folder in (bench.served_folder(64 * 1024, 40), bench.served_folder(MIB, 40)))
    one_name = ["ours", "curl", "aria2"]
    result = {}
    for title, files, names in (
            ("40 files of 64 KiB", small,
             ["ours split list", "ours list", "aria2 list", "curl list"]),
            ("40 files of 1 MiB", large, ["ours split list", "aria2 list", "curl list"]),
            ("1 MiB", {f"/{MIB}.bin": bench.served(MIB)}, one_name),
            ("20 MiB", {f"/{20 * MIB}.bin": bench.served(20 * MIB)}, one_name)):
        result[title] = through_relays(bench, files, bench.server.tls, names, bench.rounds,
                                       delay=0.03)
        if files is not small:
            result[f"{title}, slow start"] = through_relays(
                bench, files, bench.server.tls, names, bench.rounds, delay=0.03, slow_start=True)
    probe = bench.served(bench.size(800 * MIB))
    result["relay"] = through_relays(bench, {f"/{probe.name}": probe}, bench.server.tls, ["curl"],
                                     1, delay=0.03)
    return result


def home(bench):
    """A line of 40 Mbit/s."""
    served = bench.served(bench.size(40_000_000))
    return {"rounds": 2, **through_relays(bench, {f"/{served.name}": served}, bench.server.tls,
                                          ["ours", "curl", "aria2"], 2, flushes=True, delay=0.01,
                                          rate=5_000_000)}


def kills(bench):
    """How much is received for a file if the download is killed three times on the way."""
    served = bench.served(100_000_000)
    repetitions = 3 if bench.quick else 9
    result = {}
    for title, burst in (("evenly", None), ("in bursts", 0.1)):
        moments = random.Random(1)  # the same ones each time
        with Relay(bench.server.plain, rate=50_000_000, burst=burst) as relay:
            costs = [killed_download(bench, served, relay, moments) for _ in range(repetitions)]
        result[title] = costs
        bench.say(f"  {title}: " + ", ".join(f"{cost:.3f}" for cost in costs))
    return {"bytes": 100_000_000, "rounds": repetitions, "costs": result}


def killed_download(bench, served, relay, moments):
    with Trial(bench, bench.disk, 1) as trial:
        file, before = trial.folder / "file", relay.received
        command = [bench.ravelin, "get", "-q", f"{relay.base}/{served.name}", "-o", file]
        environment = {"PATH": os.environ["PATH"], "HOME": str(trial.folder)}
        for _ in range(3):
            with subprocess.Popen(command, env=environment) as process:
                time.sleep(moments.uniform(0.25, 0.65))
                process.kill()
        subprocess.run(command, env=environment, check=True)
        if process.returncode != -signal.SIGKILL or not filecmp.cmp(file, served, shallow=False):
            raise SystemExit("bench: a killed download did not resume correctly")
        return (relay.received - before) / served.stat().st_size


def many(bench):
    """The same number of bytes as one file, ten files and a hundred files."""
    total = bench.size(2000 * MIB)
    entries = []
    for count in (1, 10, 100):
        served = bench.served(total // count)
        files = {f"/many/{served.name}/{number:03}.bin": served for number in range(count)}
        entries += [Entry(bench.clients[f"{name} {count}"], bench.server.plain, files)
                    for name in ("ours", "ours one", "aria2")]
    with Trial(bench, bench.ram, bench.rounds) as trial:
        return {"bytes": total, "clients": trial.measure(entries, threads=True)}


def memory(bench):
    """Peak memory by file size."""
    result = {}
    with Trial(bench, bench.ram, min(bench.rounds, 3)) as trial:
        for size in (64 * MIB, 512 * MIB, 2 * GIB):
            served = bench.served(bench.size(size))
            entries = [Entry(bench.clients[name], bench.server.plain, {f"/{served.name}": served})
                       for name in ("ours", "curl", "aria2", "axel", "wget2")]
            result[str(bench.size(size))] = trial.measure(entries)
        return {"sizes": result, "rounds": trial.rounds}


def first_byte(command, environment):
    """Seconds until the program reports the first bytes, and until it exits."""
    start = time.monotonic()
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment) as process:
        first = None
        for line in process.stdout:
            if first is None and '"downloading"' in line:
                first = time.monotonic() - start
    if process.returncode != 0:
        raise SystemExit("bench: the resumed download failed")
    return first, time.monotonic() - start


def interrupt_soon(command, file, environment):
    """Starts a slow download and stops it cleanly once part of it is recorded."""
    record = file.parent / f".{file.stem}.lgresume"
    with subprocess.Popen(command, env=environment, stderr=subprocess.DEVNULL) as process:
        while process.poll() is None:
            if record.exists() and re.search(r'"curr_bytes":[1-9]', record.read_text()):
                process.send_signal(signal.SIGTERM)
                break
            time.sleep(0.005)
    return record


def nearly_complete(file, record, missing):
    """Edits a real record so that only the last bytes of each part are missing."""
    data = json.loads(record.read_text())
    for part in data["parts"]:
        part["curr_bytes"] = part["total_bytes_expected"] - missing
    record.write_text(json.dumps(data))
    os.truncate(file, data["content_length"] - missing)


def resume(bench):
    """10 GiB of which 5 MiB are missing. The served and the existing file are sparse."""
    size, missing = 10 * GIB, MIB
    if os.statvfs(bench.disk).f_bavail * os.statvfs(bench.disk).f_frsize < size + GIB:
        raise SystemExit("bench: the case 'resume' needs 11 GiB of free disk space")
    served = bench.sparse(size)
    link = f"{bench.server.plain}/{served.name}"
    samples = {name: {"first": [], "wall": []} for name in (
        "ravelin, continued", "ravelin, from the start", "curl -C -", "aria2 -c")}

    def add_sample(name, first, wall):
        samples[name]["first"].append(first)
        samples[name]["wall"].append(wall)

    for number in range(bench.rounds + 1):
        with Trial(bench, bench.disk, 1) as trial:
            file = trial.folder / "file"
            environment = {"PATH": os.environ["PATH"], "HOME": str(trial.folder)}
            get = [bench.ravelin, "get", link, "-o", file]
            record = interrupt_soon([*get, "-q", "--limit-rate", "4M"], file, environment)
            nearly_complete(file, record, missing)
            continued = first_byte([*get, "--events"], environment)
            complete = file.stat().st_size == size and not record.exists()
            file.unlink()
            fresh = first_byte_then_stop([*get, "--events"], environment)
            walls = {}
            for name, command in (
                    ("curl -C -", ["curl", "-q", "-sS", "-C", "-", "-o", file, link]),
                    ("aria2 -c", ["aria2c", "--no-conf", "-q", "-c", "--file-allocation=none",
                                  "-d", file.parent, "-o", "file", link])):
                file.unlink(missing_ok=True)
                file.touch()
                os.truncate(file, size - 5 * missing)
                start = time.monotonic()
                subprocess.run(command, env=environment, check=True)
                walls[name] = time.monotonic() - start
                complete = complete and file.stat().st_size == size
        if not complete:
            raise SystemExit("bench: a resumed download did not complete its file")
        if number > 0:  # the first round is a warm-up
            add_sample("ravelin, continued", *continued)
            add_sample("ravelin, from the start", fresh, None)
            for name, wall in walls.items():
                add_sample(name, None, wall)
    return {"bytes": size, "missing": 5 * missing, "clients": samples}


def first_byte_then_stop(command, environment):
    start = time.monotonic()
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment,
                          stderr=subprocess.DEVNULL) as process:
        for line in process.stdout:
            if '"downloading"' in line:
                first = time.monotonic() - start
                process.send_signal(signal.SIGTERM)
                break
        process.stdout.read()
    return first


def figures(text):
    """Parses lines of a name and a number."""
    return {name: float(value) for name, value in (line.split() for line in text.splitlines())}


def micro_program(bench, name, folder, *options):
    environment = {"PATH": os.environ["PATH"] + ":/usr/sbin", "TMPDIR": str(folder)}
    done = subprocess.run([bench.build / "bench/micro" / name, *options], env=environment,
                          text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if done.returncode != 0:
        raise SystemExit(f"bench: {name} failed:\n{done.stderr}")
    return done.stdout


def main_thread(bench):
    """The medians of the figures over all rounds."""
    result = {}
    for name, folder in (("RAM", bench.ram), ("disk", bench.disk)):
        runs = []
        for _ in range(bench.rounds):
            os.sync()
            with Trial(bench, folder, 1) as trial:
                runs.append(figures(micro_program(bench, "main_thread_holds", trial.folder, "--mib",
                                                  str(bench.size(2 * GIB) // MIB))))
        result[name] = {key: median({key: [run[key] for run in runs]}, key) for key in runs[0]}
        bench.say(f"  {name}: {result[name]}")
    return {"bytes": bench.size(2 * GIB), "runs": bench.rounds, "figures": result}


def micro(bench):
    result = {}
    for name, folder in (("RAM", bench.ram), ("disk", bench.disk)):
        with Trial(bench, folder, 1) as trial:
            report = json.loads(micro_program(
                bench, "micro_benchmarks", trial.folder, "--benchmark_format=json",
                f"--benchmark_min_time={0.1 if bench.quick else 0.5}",
                f"--benchmark_repetitions={bench.rounds}",
                "--benchmark_report_aggregates_only=true"))
        result[name] = {
            one["run_name"].split("/process_time")[0]: {"wall_ns": one["real_time"],
                                                        "cpu_ns": one["cpu_time"]}
            for one in report["benchmarks"] if one["aggregate_name"] == "median"}
    bench.say(json.dumps(result, indent=1))
    return {"figures": result}


def waiting(bench):
    count = 1000 if bench.quick else 10_000
    with Trial(bench, bench.ram, 1) as trial:
        result = figures(micro_program(bench, "waiting_operations", trial.folder, "--waiting",
                                       str(count)))
    for name, value in result.items():
        bench.say(f"  {name} {value}")
    return {"count": count, "figures": result, "rounds": 1}


CASES = {"ram": ram, "disk": disk, "tls": tls, "limited": limited, "split": split,
         "far": far, "home": home, "kills": kills, "small": small_cases, "many": many,
         "memory": memory, "resume": resume,
         "main-thread": main_thread, "micro": micro, "waiting": waiting}
