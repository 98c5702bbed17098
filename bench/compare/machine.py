"""Describes the machine and the programs, for the report."""

import os
import pathlib
import platform
import re
import subprocess


def file_system(folder):
    """The file system type and the device."""
    best = ("", "?", "?")
    for line in pathlib.Path("/proc/mounts").read_text().splitlines():
        device, point, kind = line.split()[:3]
        if (str(folder) + "/").startswith(point.rstrip("/") + "/") and len(point) >= len(best[0]):
            best = (point, kind, device)
    return f"{best[1]} on {best[2]}"


def cpu_model():
    found = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return found.group(1) if found else platform.machine()


def memory_bytes(field):
    found = re.search(rf"^{field}:\s+(\d+) kB", pathlib.Path("/proc/meminfo").read_text(), re.M)
    return int(found.group(1)) * 1024


def describe(ram, disk):
    return {"processor": cpu_model(), "cores": len(os.sched_getaffinity(0)),
            "memory": f"{memory_bytes('MemTotal') / 2**30:.0f} GiB",
            "kernel": f"{platform.system()} {platform.release()}",
            "RAM": file_system(ram), "disk": file_system(disk)}


def versions():
    """The version number of each program."""
    found = {}
    for name, command in (("curl", "curl -V"), ("aria2", "aria2c --version"),
                          ("axel", "axel -V"), ("wget2", "wget2 --version"),
                          ("nginx", "nginx -v")):
        output = subprocess.run(command.split(), text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT).stdout
        number = re.search(r"\d+\.\d+(\.\d+)*", output)
        found[name] = number.group(0) if number else "?"
        libcurl = re.search(r"(libcurl/\S+) (\S*SSL/\S+)", output)
        if libcurl:
            found["ours is linked with"] = " ".join(libcurl.groups())
    return found


def commit(root):
    def git(*arguments):
        return subprocess.run(["git", *arguments], cwd=root, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL).stdout.strip()
    changed = git("status", "--porcelain", "--", "src", "bramblekit", "platform", "app", "include")
    return git("rev-parse", "--short=10", "HEAD") + (" with changes" if changed else "")
