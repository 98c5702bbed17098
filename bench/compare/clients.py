"""The command lines of each program for the same job.

A job has `links`, `folder` (the empty target folder), `ca` (the trusted certificate) and `list` (a
file of links, one per line). All programs are quiet and ignore the user's configuration.
"""

import dataclasses
import pathlib
from typing import Callable


@dataclasses.dataclass
class Job:
    links: list
    folder: pathlib.Path
    ca: pathlib.Path
    list: pathlib.Path

    @property
    def link(self):
        return self.links[0]

    @property
    def file(self):
        return self.folder / "file"

    def trusting(self, option):
        """The option that names the certificate, in one or two words, if there is TLS."""
        if not self.link.startswith("https:"):
            return []
        return [f"{option}{self.ca}"] if option.endswith("=") else [option, self.ca]


@dataclasses.dataclass
class Client:
    name: str
    command: Callable[[Job], list]
    ours: bool = False


def then_sync(client):
    """The same client, plus a flush of the file, as ours does."""
    def command(job):
        return ["sh", "-c", '"$@" && exec sync -d "$0"', job.file, *client.command(job)]
    return Client(client.name + ", then sync", command)


def programs(ravelin):
    """All clients by the names used in the cases."""
    aria2 = ["aria2c", "--no-conf", "-q", "-k1M"]

    def ours(*options):
        return lambda job: [ravelin, "get", "-q", "--cacert", job.ca, *options,
                            "-o", job.file, job.link]

    def ours_list(*options):
        return lambda job: [ravelin, "get", "-q", *job.trusting("--cacert"), *options,
                            "-d", job.folder, "-i", job.list]

    def aria2_one(*options):
        return lambda job: [*aria2, f"--ca-certificate={job.ca}", *options,
                            "-d", job.folder, "-o", "file", job.link]

    def aria2_list(*options):
        return lambda job: [*aria2, "--file-allocation=none",
                            *job.trusting("--ca-certificate="), *options,
                            "-d", job.folder, "-i", job.list]

    def curl_list(parallel):
        return lambda job: ["curl", "-q", "-sS", "-f", "-Z", "--parallel-max", str(parallel),
                            *job.trusting("--cacert"), "--remote-name-all", "--output-dir",
                            job.folder, *job.links]

    def wget2(*options):
        return lambda job: ["wget2", "-q", "--no-hsts", f"--ca-certificate={job.ca}", *options,
                            "-O", job.file, job.link]

    clients = {
        "ours": Client("ravelin", ours(), True),
        "ours one": Client("ravelin --no-split", ours("--no-split"), True),
        "curl": Client("curl", lambda job: [
            "curl", "-q", "-sS", "-f", "--cacert", job.ca, "-o", job.file, job.link]),
        "aria2": Client("aria2 -x5", aria2_one("-x5", "-s5", "--file-allocation=none")),
        "aria2 prealloc": Client("aria2 -x5, preallocating", aria2_one("-x5", "-s5")),
        "aria2 one": Client("aria2 -x1", aria2_one("-x1", "-s1", "--file-allocation=none")),
        "axel": Client("axel -n5", lambda job: [
            "env", f"SSL_CERT_FILE={job.ca}", "axel", "-q", "-N", "-n5",
            "-o", job.file, job.link]),
        "wget2": Client("wget2", wget2()),
        "wget2 split": Client("wget2 --chunk-size", wget2("--chunk-size=64M", "--max-threads=5")),
        "ours split list": Client("ravelin -j5", ours_list("-j5"), True),
        "ours list": Client("ravelin -j5 --no-split", ours_list("-j5", "--no-split"), True),
        "aria2 list": Client("aria2 -j5", aria2_list("-j5")),
        "curl list": Client("curl -Z", curl_list(5)),
        "wget2 list": Client("wget2 -i", lambda job: [
            "wget2", "-q", "--no-hsts", "--no-robots", "--max-threads=5",
            "-P", job.folder, "-i", job.list]),
    }
    for count in (1, 10, 100):
        clients[f"ours {count}"] = Client(
            f"ravelin, {count} at once", ours_list(f"-j{count}"), True)
        clients[f"ours one {count}"] = Client(
            f"ravelin --no-split, {count} at once", ours_list(f"-j{count}", "--no-split"), True)
        clients[f"aria2 {count}"] = Client(
            f"aria2 -x5, {count} at once", aria2_list(f"-j{count}", "-x5", "-s5"))
    clients["aria2 sync"] = then_sync(clients["aria2"])
    return clients
