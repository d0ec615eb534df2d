#!/usr/bin/env python3
"""timestamp_responder.py CONFIG COMMAND...

Runs COMMAND with every {url} in it replaced by that of a timestamp authority (RFC 3161 over HTTP) on the loopback
interface, and ends with its exit status. `openssl ts -reply` answers, by the section [tsa] of CONFIG. RESPONDER in the
environment makes it err: "silent" never answers, "late" waits before it answers, "replay" gives everybody the first
answer, "error" a good answer with the HTTP status 500, "endless" one without end, and a number one with zeros up to so
many octets.
"""
import http.server
import os
import subprocess
import sys
import tempfile
import threading
import time


class Responder(http.server.BaseHTTPRequestHandler):
    config = None
    error = os.environ.get("RESPONDER")
    first = None

    def do_POST(self):
        if self.headers["Content-Type"] != "application/timestamp-query":  # RFC 3161, 3.4
            self.send_error(415)
            return
        if self.error == "silent":
            self.rfile.read()  # until nobody waits any longer
            return
        query = self.rfile.read(int(self.headers["Content-Length"]))
        with tempfile.NamedTemporaryFile() as file:
            file.write(query)
            file.flush()
            command = ["openssl", "ts", "-reply", "-config", self.config, "-queryfile", file.name]
            reply = subprocess.run(command, stdout=subprocess.PIPE, check=False).stdout
        Responder.first = Responder.first or reply
        if self.error == "late":
            time.sleep(2.5)
        self.send_response(500 if self.error == "error" else 200)
        self.send_header("Content-Type", "application/timestamp-reply")
        if self.error == "endless":
            self.end_headers()
            self.send_without_end(reply)
            return
        reply = Responder.first if self.error == "replay" else reply
        if self.error and self.error.isdigit():
            reply = reply.ljust(int(self.error), b"\0")
        self.send_header("Content-Length", str(len(reply)))
        self.end_headers()
        self.wfile.write(reply)

    def send_without_end(self, octets):
        try:
            for _ in range(1000):  # 64 MiB, which is far beyond any limit
                self.wfile.write(octets)
                octets = bytes(65536)
            print("all of it was taken", file=sys.stderr, flush=True)
        except OSError:
            pass  # nobody listens any longer

    def log_message(self, *_):
        pass


Responder.config = sys.argv[1]
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Responder)
threading.Thread(target=server.serve_forever, daemon=True).start()
url = f"http://127.0.0.1:{server.server_port}/"
sys.exit(subprocess.run([word.replace("{url}", url) for word in sys.argv[2:]], check=False).returncode)
