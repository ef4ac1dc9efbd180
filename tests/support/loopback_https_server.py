#!/usr/bin/env python3
"""loopback_https_server.py COMMAND...: runs COMMAND beside an HTTPS server on loopback whose
certificate a throwaway CA issued for this run, and exits with its status. It finds the server
through its environment (see main). Python's own server, so that a client built for another
system (the Windows build under Wine) can be tested against it too."""
import http.server
import os
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time


def openssl(*args, cwd):
    subprocess.run(["openssl", *args], cwd=cwd, check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def make_certificates(directory):
    """ca.pem, and server.pem with server.key for localhost, in `directory`."""
    os.makedirs(directory)
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out",
            "ca.pem", "-days", "2", "-subj", "/CN=Loopback test CA",
            "-addext", "basicConstraints=critical,CA:TRUE",
            "-addext", "keyUsage=critical,keyCertSign,cRLSign", cwd=directory)
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", "server.key", "-out",
            "server.csr", "-subj", "/CN=localhost", cwd=directory)
    with open(os.path.join(directory, "server.ext"), "w") as ext:
        ext.write("subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n"
                  "basicConstraints=CA:FALSE\n")
    openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
            "-CAcreateserial", "-days", "2", "-extfile", "server.ext", "-out", "server.pem",
            cwd=directory)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # keep-alive, so clients can reuse connections
    posted = 0  # body bytes that reached either server

    def log_message(self, *args):
        pass

    def answer(self, status, body, headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self, body=b""):
        if self.path.startswith("/echo"):  # what arrived: request line, some headers, body
            seen = "".join(f"{name}: {self.headers[name]}\n"
                           for name in ("Content-Type", "Expect", "Cookie") if name in self.headers)
            self.answer(200, f"{self.command} {self.path}\n{seen}".encode() + body)
        elif self.path == "/ok":
            self.answer(200, b"ok")
        elif self.path == "/redirect":
            port = self.server.server_address[1]
            self.answer(302, b"moved", [
                ("Location", f"https://localhost:{port}/ok"), ("Retry-After", "7"),
                ("Set-Cookie", "fa_cid=c1; Path=/; Max-Age=3600; Secure"),
                ("Set-Cookie", "fa_did=d1; Path=/; Max-Age=3600"),
                ("Set-Cookie", "scoped=s; Path=/only; Max-Age=3600"),
                ("Set-Cookie", "session=x; Path=/")])
        elif self.path == "/posted":
            self.answer(200, str(Handler.posted).encode())
        elif self.path == "/big":
            self.answer(200, b"x" * (2 << 20))
        elif self.path == "/hang":
            time.sleep(10)  # longer than any test waits for a timeout or a cancellation
            self.answer(200, b"late")
        else:
            self.answer(404, b"")

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        Handler.posted += len(body)
        self.do_GET(body)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # clients that give up on a certificate or a cancelled request end abruptly


def serve(directory):
    make_certificates(directory)
    server = Server(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(os.path.join(directory, "server.pem"),
                            os.path.join(directory, "server.key"))
    server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def main():
    with tempfile.TemporaryDirectory() as directory:
        server = serve(os.path.join(directory, "trusted"))
        # The same server with a certificate from another CA, on a port of its own (Wine pools
        # connections across sessions by host and port).
        stranger = serve(os.path.join(directory, "stranger"))
        with socket.socket() as probe:  # bound, then closed: nothing listens there
            probe.bind(("127.0.0.1", 0))
            refused = probe.getsockname()[1]
        environment = dict(os.environ, ZELVANOR_TEST_HTTPS_PORT=str(server.server_address[1]),
                           ZELVANOR_TEST_CA_FILE=os.path.join(directory, "trusted", "ca.pem"),
                           ZELVANOR_TEST_STRANGER_PORT=str(stranger.server_address[1]),
                           ZELVANOR_TEST_REFUSED_PORT=str(refused))
        status = subprocess.run(sys.argv[1:], env=environment, timeout=300).returncode
        server.shutdown()
        stranger.shutdown()
        return status


if __name__ == "__main__":
    sys.exit(main())
