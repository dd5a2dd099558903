"""nginx as the consumer of a service's certificates, and a client that trusts one authority only."""

import contextlib
import os
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile

from .process import wait_until

SERVER_UID = 4310
KEY_GROUP_GID = 4252


class WebServer:
    """Runs as a user of its own that belongs to the key group: a key that this group may not read is not served.
    It listens on a socket file of its own, so that nothing of the host's network is used."""

    SETTINGS = """
daemon off;
master_process off;
worker_processes 1;
pid {folder}/pid;
error_log {folder}/error.log;
events {{ worker_connections 32; }}
http {{
    access_log off;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    server {{
        listen unix:{folder}/socket ssl;
        ssl_certificate {certificate};
        ssl_certificate_key {key};
        ssl_session_cache off;
        {more}
        location / {{ return 200 "served to $ssl_client_verify\\n"; }}
    }}
}}
"""

    def __init__(self, certificate, key, client_bundle=None):
        """Paths outside the device. With a bundle of authorities only their clients are served."""
        nginx = shutil.which("nginx", path="/usr/sbin:/usr/bin")
        if nginx is None:
            raise AssertionError("nginx is not installed (nginx-light)")
        self.folder = tempfile.mkdtemp(prefix="kwnginx")
        more = f"ssl_client_certificate {client_bundle}; ssl_verify_client on;" if client_bundle else ""
        with open(f"{self.folder}/nginx.conf", "w", encoding="ascii") as settings:
            settings.write(self.SETTINGS.format(folder=self.folder, certificate=certificate, key=key, more=more))
        os.chown(self.folder, SERVER_UID, SERVER_UID)
        self._server = subprocess.Popen([nginx, "-p", self.folder, "-c", f"{self.folder}/nginx.conf",
                                         "-e", f"{self.folder}/error.log"],
                                        user=SERVER_UID, group=SERVER_UID, extra_groups=[KEY_GROUP_GID],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def __enter__(self):
        wait_until(lambda: self._listens() or self._server.poll() is not None)
        if self._server.poll() is not None:
            reason = self.errors()
            self.__exit__()
            raise AssertionError(f"nginx did not start:\n{reason}")
        return self

    def __exit__(self, *_):
        if self._server.poll() is None:
            self._server.send_signal(signal.SIGTERM)
            try:
                self._server.wait(10)
            except subprocess.TimeoutExpired:
                self._server.kill()
                self._server.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def errors(self):
        with contextlib.suppress(FileNotFoundError), open(f"{self.folder}/error.log", encoding="utf-8") as log:
            return log.read()
        return ""

    def _listens(self):
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(f"{self.folder}/socket") == 0

    def get(self, authority, name, client=None):
        """One request by a client that trusts the PEM file `authority` only and expects the server to be `name`.
        `client`: the files of the client's own certificate and key. Returns (status, body, server certificate in
        DER); a server that is not trusted raises ssl.SSLCertVerificationError."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.load_verify_locations(cafile=authority)
        if client is not None:
            context.load_cert_chain(*client)
        with socket.socket(socket.AF_UNIX) as plain:
            plain.settimeout(30)
            plain.connect(f"{self.folder}/socket")
            with context.wrap_socket(plain, server_hostname=name) as tls:
                tls.sendall(b"GET / HTTP/1.0\r\nHost: device\r\n\r\n")
                answer = b""
                while chunk := tls.recv(65536):
                    answer += chunk
                head, _, body = answer.partition(b"\r\n\r\n")
                return int(head.split()[1]), body.decode(), tls.getpeercert(binary_form=True)
