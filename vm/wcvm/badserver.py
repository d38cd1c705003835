"""A web server that fails as the download test's faults ask, for a run's web network: it serves the
files of ROOT, but /cut/NAME closes the connection halfway through the body and /stall/NAME stops
sending halfway through and keeps the connection open. Python's standard library; run inside the
run's namespace:

    python3 -m wcvm.badserver ADDRESS PORT ROOT"""
import http.server
import os
import sys
import time


def handler(root):
    class Bad(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):
            parts = self.path.split("?")[0].strip("/").split("/")
            if len(parts) != 2 or parts[0] not in ("cut", "stall") or parts[1] in ("", ".", ".."):
                self.send_error(404)
                return
            path = os.path.join(root, parts[1])
            if not os.path.isfile(path):
                self.send_error(404)
                return
            size = os.path.getsize(path)
            self.send_response(200)
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Content-Length", str(size))
            self.end_headers()
            with open(path, "rb") as f:
                self.wfile.write(f.read(size // 2))
            self.wfile.flush()
            if parts[0] == "stall":
                time.sleep(600)  # the client gives up first; the run's end stops the server
            self.close_connection = True

        def log_message(self, fmt, *args):
            sys.stderr.write("%s %s\n" % (self.address_string(), fmt % args))
            sys.stderr.flush()

    return Bad


def main(argv):
    address, port, root = argv[0], int(argv[1]), argv[2]
    server = http.server.ThreadingHTTPServer((address, port), handler(root))
    server.daemon_threads = True
    server.serve_forever()


if __name__ == "__main__":
    main(sys.argv[1:])
