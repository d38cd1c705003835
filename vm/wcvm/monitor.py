"""QEMU's monitor (QMP): starting the stopped VM and raising or dropping a NIC's link."""
import os
import re
import socket
import time

from .config import HarnessError

class Monitor:
    """QEMU's monitor: unplugs the cables of the NICs started with link=off before the VM runs, and
    plugs a NIC's cable in when the manager shows the prompt the NIC waits for."""

    def __init__(self, path, nics, deadline):
        import json
        self.json = json
        while not os.path.exists(path):
            if time.time() > deadline:
                raise HarnessError("QEMU did not open its QMP socket")
            time.sleep(0.05)
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.file = self.socket.makefile("rw")
        self.file.readline()  # greeting
        self.nics = nics
        self.execute("qmp_capabilities")
        for index, nic in enumerate(nics):
            if not nic.link:
                self.execute("set_link", {"name": f"n{index}", "up": False})
        self.execute("cont")

    def execute(self, command, arguments=None):
        msg = {"execute": command}
        if arguments:
            msg["arguments"] = arguments
        self.file.write(self.json.dumps(msg) + "\n")
        self.file.flush()
        while True:
            reply = self.json.loads(self.file.readline())
            if "return" in reply:
                return
            if "error" in reply:
                raise HarnessError(f"QMP {command}: {reply['error']}")

    def on_line(self, line):
        m = re.match(r"PROMPT message=(\d+)", line)
        if not m:
            return
        for index, nic in enumerate(self.nics):
            if nic.plug == int(m.group(1)):
                self.execute("set_link", {"name": f"n{index}", "up": True})
                nic.plug = 0  # once

    def close(self):
        self.file.close()
        self.socket.close()
