#!/usr/bin/env python3
"""loopback_https_server.py COMMAND...: runs COMMAND beside an HTTPS server on loopback whose
certificate a throwaway CA (trustme's) issued for this run, and exits with its status. It finds
the server through its environment (see main). Python's own server, so that a client built for
another system (the Windows build under Wine) can be tested against it too."""
import http.server
import os
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time

import trustme

# What each path answers: status, body and headers ({port} is the server's own).
ROUTES = {
    "/ok": (200, b"ok", []),
    # Not to be followed; it asks to wait, and sets dated, path-scoped and session cookies.
    "/redirect": (302, b"moved", [
        ("Location", "https://localhost:{port}/ok"), ("Retry-After", "7"),
        ("Set-Cookie", "fa_cid=c1; Path=/; Max-Age=3600; Secure"),
        ("Set-Cookie", "fa_did=d1; Path=/; Max-Age=3600"),
        ("Set-Cookie", "scoped=s; Path=/only; Max-Age=3600"),
        ("Set-Cookie", "session=x; Path=/")]),
    "/big": (200, b"x" * (2 << 20), []),
}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # keep-alive, so clients can reuse connections
    posted = 0  # body bytes that reached either server

    def log_message(self, *args):
        pass

    def answer(self, status, body, headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value.format(port=self.server.server_address[1]))
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self, body=b""):
        if self.path.startswith("/echo"):  # what arrived: request line, some headers, body
            seen = "".join(f"{name}: {self.headers[name]}\n"
                           for name in ("Content-Type", "Expect", "Cookie") if name in self.headers)
            self.answer(200, f"{self.command} {self.path}\n{seen}".encode() + body)
        elif self.path == "/posted":
            self.answer(200, str(Handler.posted).encode())
        elif self.path == "/hang":
            time.sleep(10)  # longer than any test waits for a timeout or a cancellation
            self.answer(200, b"late")
        else:
            self.answer(*ROUTES.get(self.path, (404, b"", [])))

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        Handler.posted += len(body)
        self.do_GET(body)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # clients that give up on a certificate or a cancelled request end abruptly


def serve(ca):
    """A server on a port of its own whose certificate for localhost `ca` issued."""
    server = Server(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ca.issue_cert("localhost").configure_cert(context)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def main():
    with tempfile.TemporaryDirectory() as directory:
        ca = trustme.CA()
        ca.cert_pem.write_to_path(os.path.join(directory, "ca.pem"))
        server = serve(ca)
        # The same server with a certificate from another CA, on a port of its own (Wine pools
        # connections across sessions by host and port).
        stranger = serve(trustme.CA())
        with socket.socket() as probe:  # bound, then closed: nothing listens there
            probe.bind(("127.0.0.1", 0))
            refused = probe.getsockname()[1]
        environment = dict(os.environ, ZELVANOR_TEST_HTTPS_PORT=str(server.server_address[1]),
                           ZELVANOR_TEST_CA_FILE=os.path.join(directory, "ca.pem"),
                           ZELVANOR_TEST_STRANGER_PORT=str(stranger.server_address[1]),
                           ZELVANOR_TEST_REFUSED_PORT=str(refused))
        # The servers' threads end with this process.
        return subprocess.run(sys.argv[1:], env=environment, timeout=300).returncode


if __name__ == "__main__":
    sys.exit(main())
