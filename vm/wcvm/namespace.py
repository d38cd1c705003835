"""The fleet's network namespace: a bridge at the server's address and a tap device per machine, made
by the run and removed with everything still running in it however the run ends, a second Ctrl-C or
SIGTERM during the clean-up included. A namespace that a killed run left behind is found by its name
(it carries the run's process number) and removed by the next run."""
import contextlib
import os
import re
import signal
import subprocess

from .config import HarnessError

SERVER = "10.99.0.1"
PREFIX = 24
# The bridge's IPv6 address, on a unique-local prefix of the fleet's own (--ipv6).
SERVER6 = "fd99::1"
PREFIX6 = 64
PREFIX_NAME = "wcfleet-"


def run(words, **kw):
    return subprocess.run(words, capture_output=True, text=True, stdin=subprocess.DEVNULL, **kw)


@contextlib.contextmanager
def shielded():
    """Ctrl-C and SIGTERM wait until the block is over, then take effect: a clean-up always finishes."""
    arrived = []
    previous = {s: signal.getsignal(s) for s in (signal.SIGINT, signal.SIGTERM)}
    try:
        for s in previous:
            signal.signal(s, lambda number, _frame: arrived.append(number))
    except ValueError:  # not the main thread: signals reach only the main thread anyway
        previous = {}
    try:
        yield
    finally:
        for s, handler in previous.items():
            signal.signal(s, handler)
        if arrived:
            raise KeyboardInterrupt


def remove(name):
    """Kills whatever runs in the namespace and deletes it."""
    for pid in run(["ip", "netns", "pids", name]).stdout.split():
        try:
            os.kill(int(pid), signal.SIGKILL)
        except (ProcessLookupError, ValueError):
            pass
    run(["ip", "netns", "del", name])


def _alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def left_behind(prefix=PREFIX_NAME):
    """The namespaces of this prefix whose run is no longer there (killed with SIGKILL, say)."""
    names = [line.split()[0] for line in run(["ip", "netns", "list"]).stdout.splitlines() if line.strip()]
    found = []
    for name in names:
        m = re.match(rf"^{prefix}(\d+)-", name)
        if m and not _alive(int(m.group(1))):
            found.append(name)
    return found


class Namespace:
    """`with Namespace(name, taps) as ns:`; ns.inside(words) runs a command in it. With ipv6 the bridge
    also has address6 (without duplicate-address detection, so that the servers can bind it at once)."""

    def __init__(self, name, taps, ipv6=False, address=SERVER, what="the fleet", address6=SERVER6):
        self.name, self.taps, self.ipv6, self.address, self.what = name, taps, ipv6, address, what
        self.address6 = address6

    def __enter__(self):
        made = run(["ip", "netns", "add", self.name])
        if made.returncode != 0:
            raise HarnessError(f"cannot make a network namespace ({made.stderr.strip() or 'ip netns add failed'}): "
                               f"./wirecheck fleet needs root (or CAP_NET_ADMIN)")
        try:
            steps = [["ip", "link", "set", "lo", "up"], ["ip", "link", "add", "br0", "type", "bridge"],
                     ["ip", "addr", "add", f"{self.address}/{PREFIX}", "dev", "br0"], ["ip", "link", "set", "br0", "up"]]
            if self.ipv6:
                steps.append(["ip", "-6", "addr", "add", f"{self.address6}/{PREFIX6}", "dev", "br0", "nodad"])
            for tap in self.taps:
                steps += [["ip", "tuntap", "add", tap, "mode", "tap"], ["ip", "link", "set", tap, "master", "br0"],
                          ["ip", "link", "set", tap, "up"]]
            for step in steps:
                done = run(self.inside(step))
                if done.returncode != 0:
                    raise HarnessError(f"{' '.join(step)} in the namespace of {self.what}: {done.stderr.strip()}")
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def inside(self, words):
        return ["ip", "netns", "exec", self.name] + list(words)

    def __exit__(self, *exc):
        with shielded():
            remove(self.name)
