"""nginx with pages and certificates of many kinds, and one that takes what a relay takes."""

import socket
import subprocess
import time

from fleet import Authority, openssl

START_TIMEOUT_S = 30
STATUSES = (200, 204, 206, 301, 304, 400, 401, 403, 404, 410, 500, 502, 503)
# How often is redirected from /hop/N until there is an answer: N times.
MOST_HOPS = 12


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


def expired(authority):
    """(certificate, key) of whoever should have asked for a new one yesterday."""
    certificate, key = authority.issue("expired")
    request, extensions = (authority.directory / f"expired.{end}" for end in ("csr", "ext"))
    openssl("x509", "-req", "-in", request, "-CA", authority.certificate, "-CAkey", authority.key,
            "-CAcreateserial", "-days", "-1", "-extfile", extensions, "-out", certificate)
    return certificate, key


class Nginx:
    """Starts with its making; use `stop`."""

    def __init__(self, directory, servers, ports):
        self.directory = directory
        temporary = "".join(f"{name}_temp_path {directory}/{name};\n" for name in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration = directory / "nginx.conf"
        configuration.write_text(
            f"daemon off; user root; pid {directory}/pid; error_log {directory}/errors;\n"
            f"events {{ worker_connections 256; }}\n"
            f"http {{ access_log {directory}/access; {temporary} large_client_header_buffers "
            f"4 64k;\n{servers} }}\n")
        # What is left behind ends with the tests.
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", "nginx", "-c", configuration, "-p", directory],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self._wait_ready(ports)

    def _wait_ready(self, ports):
        deadline = time.monotonic() + START_TIMEOUT_S
        for port in ports:
            while True:
                try:
                    socket.create_connection(("127.0.0.1", port)).close()
                    break
                except OSError:
                    assert self._process.poll() is None, self._process.stderr.read()
                    assert time.monotonic() < deadline
                    time.sleep(0.02)

    def requests(self):
        """The lines of its log, which come a little after the answers."""
        return (self.directory / "access").read_text(errors="replace").splitlines()

    def stop(self):
        self._process.terminate()
        self._process.wait(START_TIMEOUT_S)


class RelayOfOtherMake(Nginx):
    """Stores below `store` what it gets with PUT, and lets everybody make aliases. `tls`:
    (certificate, key) of one that speaks nothing else."""

    def __init__(self, directory, tls=None):
        directory.mkdir()
        self.store = directory / "store"
        self._port, = free_ports(1)
        certificate = "ssl_certificate {}; ssl_certificate_key {};".format(*tls) if tls else ""
        super().__init__(directory, (
            f"server {{ listen 127.0.0.1:{self._port}{' ssl' if tls else ''}; {certificate}\n"
            f"root {self.store}; client_max_body_size 64m;\n"
            "location /v1/actions/ { default_type application/json;"
            " return 200 '{\"code\":0,\"container\":{}}'; }\n"
            "location / { dav_methods PUT; create_full_put_path on; } }\n"), [self._port])

    def address(self):
        return "127.0.0.1", self._port


class WebServer(Nginx):
    """`url(path)` and `tls_url(path, of)`, where `of` is
    "good", "expired", "stranger" (a certificate of another authority) or "elsewhere" (of another
    host)."""

    def __init__(self, directory):
        self.authority = Authority(directory / "ca")
        pairs = {"good": self.authority.issue("good"), "expired": expired(self.authority),
                 "elsewhere": self.authority.issue("elsewhere", "IP:127.99.99.99"),
                 "stranger": Authority(directory / "other").issue("stranger")}
        self._port, *tls_ports = free_ports(1 + len(pairs))
        self._tls_ports = dict(zip(pairs, tls_ports))

        locations = "".join(f"location = /status/{status} {{ return {status}; }}\n"
                            for status in STATUSES)
        locations += "location = /hop/0 { return 200 arrived; }\n"
        locations += "".join(f"location = /hop/{hop} {{ return 302 /hop/{hop - 1}; }}\n"
                             for hop in range(1, MOST_HOPS + 1))
        targets = {"loop": "/to/loop", "missing": "/status/404", "nowhere": "http://127.0.0.1:1/",
                   "file": "file:///etc/hostname", "ftp": "ftp://127.0.0.1/",
                   "tls": self.tls_url("/status/200"),
                   "expired": self.tls_url("/status/200", "expired")}
        locations += "".join(f"location = /to/{name} {{ return 302 {target}; }}\n"
                             for name, target in targets.items())
        servers = f"server {{ listen 127.0.0.1:{self._port}; root {directory}; {locations} }}\n"
        for of, (certificate, key) in pairs.items():
            servers += (f"server {{ listen 127.0.0.1:{self._tls_ports[of]} ssl; {locations}\n"
                        f"ssl_certificate {certificate}; ssl_certificate_key {key}; }}\n")
        super().__init__(directory, servers, [self._port, *self._tls_ports.values()])

    def url(self, path):
        return f"http://127.0.0.1:{self._port}{path}"

    def tls_url(self, path, of="good"):
        return f"https://127.0.0.1:{self._tls_ports[of]}{path}"
