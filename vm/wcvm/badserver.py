"""A web server for the download test: it serves the files of ROOT as /NAME, and fails on purpose
as the faults ask: /cut/NAME closes the connection halfway through the body, /stall/NAME stops
sending halfway through and keeps the connection open. Python's standard library. Inside a run's
web network it listens on a port:

    python3 -m wcvm.badserver ADDRESS PORT ROOT

and behind QEMU's guestfwd (the user network's one way in, which restrict=on leaves open) it
answers the one connection QEMU hands it on its standard input and output:

    python3 -m wcvm.badserver --stdio ROOT"""
import http.server
import os
import sys
import time


def handler(root):
    class Bad(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):
            parts = self.path.split("?")[0].strip("/").split("/")
            if len(parts) == 1:
                parts = ["whole"] + parts
            if len(parts) != 2 or parts[0] not in ("whole", "cut", "stall") or parts[1] in ("", ".", ".."):
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
                if parts[0] == "whole":
                    while True:
                        block = f.read(1 << 20)
                        if not block:
                            break
                        self.wfile.write(block)
                else:
                    self.wfile.write(f.read(size // 2))
            self.wfile.flush()
            if parts[0] == "stall":
                time.sleep(600)  # the client gives up first; the run's end stops the server
            self.close_connection = True

        def log_message(self, fmt, *args):
            sys.stderr.write("%s %s\n" % (self.address_string(), fmt % args))
            sys.stderr.flush()

    return Bad


class StdioConnection:
    """QEMU's guestfwd command gets the connection as its standard input and output."""

    def makefile(self, mode, *args, **kwargs):
        return os.fdopen(os.dup(0 if "r" in mode else 1), mode, buffering=0 if "w" in mode else -1)

    def sendall(self, data):
        view = memoryview(data)
        while view:
            view = view[os.write(1, view):]


def main(argv):
    if argv[0] == "--stdio":
        # QEMU hands the connection over as standard error too: nothing may be logged into it.
        quiet = os.open(os.devnull, os.O_WRONLY)
        os.dup2(quiet, 2)
        sys.stderr = open(os.devnull, "w")
        handler(argv[1])(StdioConnection(), ("10.0.2.100", 0), None)
        return
    address, port, root = argv[0], int(argv[1]), argv[2]
    server = http.server.ThreadingHTTPServer((address, port), handler(root))
    server.daemon_threads = True
    server.serve_forever()


if __name__ == "__main__":
    main(sys.argv[1:])
