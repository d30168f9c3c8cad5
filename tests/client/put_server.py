#!/usr/bin/env python3
"""A small HTTP ingest point for tests: stores every PUT below --root (the
file appears whole, by rename), serves the files by GET, and answers the
first --fail-first PUTs with 500 (a server that fails for a while, then
recovers). Listens on 127.0.0.1 on a free port, which it writes to
--port-file once it accepts connections."""
import argparse
import http.server
import os
import threading


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--fail-first", type=int, default=0)
    args = parser.parse_args()
    root = os.path.realpath(args.root)
    failures = {"left": args.fail_first}
    lock = threading.Lock()

    class Handler(http.server.SimpleHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def __init__(self, *a, **kw):
            super().__init__(*a, directory=root, **kw)

        def log_message(self, format, *a):
            pass

        def do_PUT(self):
            length = int(self.headers.get("Content-Length", "0"))
            body = self.rfile.read(length)
            target = os.path.realpath(os.path.join(root, self.path.lstrip("/")))
            with lock:
                fail = failures["left"] > 0
                failures["left"] -= 1 if fail else 0
            if fail or not target.startswith(root + os.sep):
                self.send_response(500 if fail else 403)
                self.send_header("Content-Length", "0")
                self.end_headers()
                return
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target + ".part", "wb") as out:
                out.write(body)
            os.replace(target + ".part", target)
            self.send_response(201)
            self.send_header("Content-Length", "0")
            self.end_headers()

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    with open(args.port_file + ".part", "w") as out:
        out.write(str(server.server_address[1]))
    os.replace(args.port_file + ".part", args.port_file)
    server.serve_forever()


if __name__ == "__main__":
    main()
