"""Files that nginx serves on loopback, for the scripts that show what the program prints."""
import contextlib
import os
import socket
import subprocess
import sys
import time

CONFIGURATION = """daemon off; master_process off; pid pid; error_log error.log; events {{}}
http {{ access_log off; client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path t;
  uwsgi_temp_path t; scgi_temp_path t;
  server {{ listen 127.0.0.1:{fast}; root served; location = /get {{
    add_header Content-Disposition 'attachment; filename="seven.mkv"'; }} }}
  server {{ listen 127.0.0.1:{slow}; root served; limit_rate {rate}k; }} }}"""


def free_ports(count):
    with contextlib.ExitStack() as sockets:
        found = [sockets.enter_context(socket.socket()) for _ in range(count)]
        for one in found:
            one.bind(("127.0.0.1", 0))
        return [one.getsockname()[1] for one in found]


def wait_for(file):
    limit = time.monotonic() + 10
    while not os.path.exists(file) or os.path.getsize(file) == 0:
        if time.monotonic() > limit:
            sys.exit("nginx does not start")
        time.sleep(0.05)


@contextlib.contextmanager
def serving(work, files, rate):
    """Serves `files`, sizes in MB by name. Returns the address without a limit, and the one with
    `rate` KiB/s for each connection."""
    os.makedirs(work + "/served")
    for name, size in files.items():
        with open(work + "/served/" + name, "wb") as file:
            file.truncate(size * 1000 * 1000)
    fast, slow = free_ports(2)
    with open(work + "/nginx.conf", "w", encoding="utf-8") as file:
        file.write(CONFIGURATION.format(fast=fast, slow=slow, rate=rate))
    path = os.environ["PATH"] + ":/usr/sbin"  # nginx on Debian
    server = subprocess.Popen(["nginx", "-p", work, "-e", "error.log", "-c", "nginx.conf"],
                              env=os.environ | {"PATH": path})
    try:
        wait_for(work + "/pid")
        yield f"http://127.0.0.1:{fast}", f"http://127.0.0.1:{slow}"
    finally:
        server.terminate()
        server.wait()
