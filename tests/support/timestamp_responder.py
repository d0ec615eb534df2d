#!/usr/bin/env python3
"""timestamp_responder.py CONFIG COMMAND...

Runs COMMAND with every {url} in it replaced by that of a timestamp authority (RFC 3161 over HTTP) on the loopback
interface, and ends with its exit status. `openssl ts -reply` answers, by the section [tsa] of CONFIG.
"""
import http.server
import subprocess
import sys
import tempfile
import threading


class Responder(http.server.BaseHTTPRequestHandler):
    config = None

    def do_POST(self):
        query = self.rfile.read(int(self.headers["Content-Length"]))
        with tempfile.NamedTemporaryFile() as file:
            file.write(query)
            file.flush()
            command = ["openssl", "ts", "-reply", "-config", self.config, "-queryfile", file.name]
            reply = subprocess.run(command, stdout=subprocess.PIPE, check=False).stdout
        self.send_response(200)
        self.send_header("Content-Type", "application/timestamp-reply")
        self.send_header("Content-Length", str(len(reply)))
        self.end_headers()
        self.wfile.write(reply)

    def log_message(self, *_):
        pass


Responder.config = sys.argv[1]
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Responder)
threading.Thread(target=server.serve_forever, daemon=True).start()
url = f"http://127.0.0.1:{server.server_port}/"
sys.exit(subprocess.run([word.replace("{url}", url) for word in sys.argv[2:]], check=False).returncode)
