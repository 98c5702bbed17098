"""An nginx on free loopback ports, with all its files in one folder."""

import pathlib
import shutil
import socket
import subprocess
import time

CERTIFICATE = """[req]
distinguished_name = name
[name]
[own]
basicConstraints = critical, CA:TRUE
subjectAltName = IP:127.0.0.1, DNS:127.0.0.1
"""

# A single process without a master, so that nothing is left running if it is killed. The cipher is
# fixed, so that no client benefits from choosing a faster one.
CONFIGURATION = """
daemon off;
master_process off;
pid nginx.pid;
worker_rlimit_nofile 8192;
events {{ worker_connections 4096; }}
http {{
  default_type application/octet-stream;
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 100000;
  client_body_temp_path temp; proxy_temp_path temp; fastcgi_temp_path temp;
  uwsgi_temp_path temp; scgi_temp_path temp;
  ssl_certificate server.pem;
  ssl_certificate_key server.key;
  ssl_protocols TLSv1.3;
  ssl_conf_command Ciphersuites TLS_AES_256_GCM_SHA384;
  server {{ listen 127.0.0.1:{plain}; root {root}; {many} }}
  server {{ listen 127.0.0.1:{tls} ssl; root {root}; }}
  server {{ listen 127.0.0.1:{limited}; root {root}; limit_rate {rate}; }}
}}
"""
# Many paths for one file.
MANY = "location ~ ^/many/(?<size>[^/]+)/ {{ alias {root}/$size; }}"


def find_program(name):
    found = shutil.which(name) or shutil.which(name, path="/usr/sbin:/sbin")
    if not found:
        raise SystemExit(f"bench: {name} is not installed; script/install-packages bench")
    return found


def free_ports(count):
    """Ports that were free just now. The caller tries again if one is taken."""
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


class Server:
    def __init__(self, folder, root, rate="10m"):
        self.folder, self.root, self.rate = pathlib.Path(folder), pathlib.Path(root), rate
        self.ca = self.folder / "server.pem"
        self.process = None
        self._make_certificate()
        for _ in range(10):
            if self._start():
                return
        raise SystemExit("bench: nginx did not start: " + self._errors())

    def _make_certificate(self):
        settings = self.folder / "certificate.conf"
        settings.write_text(CERTIFICATE)
        subprocess.run(
            ["openssl", "req", "-x509", "-nodes", "-days", "2", "-newkey", "ec",
             "-pkeyopt", "ec_paramgen_curve:prime256v1", "-config", settings, "-extensions", "own",
             "-subj", "/CN=bench", "-keyout", self.folder / "server.key", "-out", self.ca],
            check=True, stderr=subprocess.DEVNULL)

    def _errors(self):
        log = self.folder / "error.log"
        return log.read_text() if log.exists() else "nothing was logged"

    def _start(self):
        plain, tls, limited = free_ports(3)
        self.plain = f"http://127.0.0.1:{plain}"
        self.tls = f"https://127.0.0.1:{tls}"
        self.limited = f"http://127.0.0.1:{limited}"
        configuration = self.folder / "nginx.conf"
        configuration.write_text(CONFIGURATION.format(
            plain=plain, tls=tls, limited=limited, root=self.root, rate=self.rate,
            many=MANY.format(root=self.root)))
        self.process = subprocess.Popen(
            [find_program("nginx"), "-p", self.folder, "-c", configuration,
             "-e", self.folder / "error.log"], stderr=subprocess.DEVNULL)
        while self.process.poll() is None:
            # nginx writes this once it listens.
            if (self.folder / "nginx.pid").exists():
                return True
            time.sleep(0.01)
        return False

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            self.process.wait()
