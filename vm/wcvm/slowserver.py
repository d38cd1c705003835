"""A slow web server for the fleet's faults: takes PUT under /results/ like the fleet's nginx, but
answers each only after a delay. Python's standard library; run inside the fleet's namespace:

    python3 -m wcvm.slowserver ADDRESS PORT DELAY_SECONDS ROOT"""
import http.server
import os
import sys
import time


def handler(root, delay):
    class Put(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_PUT(self):
            length = int(self.headers.get("Content-Length", "0"))
            body = self.rfile.read(length)
            path = os.path.normpath(self.path.split("?")[0]).lstrip("/")
            if not path.startswith("results/") or ".." in path.split("/"):
                self.answer(403)
                return
            time.sleep(delay)
            target = os.path.join(root, path)
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "wb") as f:
                f.write(body)
            self.answer(201)

        def answer(self, code):
            self.send_response(code)
            self.send_header("Content-Length", "0")
            self.send_header("Connection", "close")
            self.end_headers()

        def log_message(self, fmt, *args):
            sys.stderr.write("%s %s\n" % (self.address_string(), fmt % args))
            sys.stderr.flush()

    return Put


def main(argv):
    address, port, delay, root = argv[0], int(argv[1]), float(argv[2]), argv[3]
    server = http.server.ThreadingHTTPServer((address, port), handler(root, delay))
    server.serve_forever()


if __name__ == "__main__":
    main(sys.argv[1:])
