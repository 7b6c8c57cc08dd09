"""nginx, the peer of what goes over HTTP."""

import contextlib
import socket
import subprocess
import time


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def nginx(directory, port, settings):
    """A running nginx with these settings in its `http` block, listening at `port` at least."""
    config = directory / "nginx.conf"
    config.write_text(f"""
daemon off; user root; worker_processes auto; pid {directory}/nginx.pid;
error_log {directory}/error.log;
events {{ worker_connections 1024; }}
http {{
  client_body_temp_path {directory}/body; proxy_temp_path {directory}/proxy;
  fastcgi_temp_path {directory}/fastcgi; uwsgi_temp_path {directory}/uwsgi;
  scgi_temp_path {directory}/scgi;
  {settings}
}}
""")
    server = subprocess.Popen(["nginx", "-c", config, "-p", directory], stderr=subprocess.DEVNULL)
    try:
        wait_for(server, port)
        yield
    finally:
        server.terminate()
        server.wait(30)


def wait_for(server, port):
    for _ in range(500):
        assert server.poll() is None, "nginx did not start"
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
            return
        time.sleep(0.02)
    raise TimeoutError("nginx does not listen")
