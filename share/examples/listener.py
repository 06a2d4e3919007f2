#!/usr/bin/python3
"""A destination for events: prints each one that arrives. Usage: listener.py [PORT]  (8888)"""

import http.server
import json
import sys


class Listener(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        document = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        for event in document.get("Events", []):
            origin = event.get("OriginOfCondition", {}).get("@odata.id", "")
            print(f"{event['MessageId']} {origin} (Context: {document.get('Context')})", flush=True)
        self.send_response(204)
        self.end_headers()

    def log_message(self, *_):
        pass


port = int(sys.argv[1]) if len(sys.argv) > 1 else 8888
server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Listener)
print(f"Listening on http://127.0.0.1:{port}/", flush=True)
server.serve_forever()
