#!/usr/bin/env python3
"""A destination of events, over HTTP and HTTPS: listener.py FOLDER

FOLDER holds cert.pem and key.pem. Writes its two ports to FOLDER/ports and each request as one line of JSON to
FOLDER/requests. FOLDER/modes, a JSON object, tells what becomes of the requests to a path: "fail" (status 500), "hang"
(no answer) or, for all others, 200.
"""
import http.server
import json
import os
import ssl
import sys
import threading
import time

folder = sys.argv[1]
lock = threading.Lock()


def mode_of(path):
    with open(f"{folder}/modes", encoding="utf-8") as modes:
        return json.load(modes).get(path, "take")


class Listener(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        mode = mode_of(self.path)
        line = {"path": self.path, "mode": mode, "headers": dict(self.headers), "event": json.loads(body)}
        with lock, open(f"{folder}/requests", "a", encoding="utf-8") as requests:
            print(json.dumps(line), file=requests)
        while mode == "hang":
            time.sleep(60)
        self.send_response(500 if mode == "fail" else 200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


servers = [http.server.ThreadingHTTPServer(("127.0.0.1", 0), Listener) for _ in range(2)]
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(f"{folder}/cert.pem", f"{folder}/key.pem")
servers[1].socket = context.wrap_socket(servers[1].socket, server_side=True)
with open(f"{folder}/ports.new", "w", encoding="utf-8") as ports:
    print(*(server.server_port for server in servers), file=ports)
os.rename(f"{folder}/ports.new", f"{folder}/ports")
for server in servers:
    server.daemon_threads = True
    threading.Thread(target=server.serve_forever).start()
