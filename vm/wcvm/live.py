"""One VM run as it happens: the serial console read live, questions answered from a script or the
keyboard, links raised when a prompt asks for the cable, and the results read back."""
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time
import tty

from .config import (ESCAPE, LAST_DIR, MANAGER_LINES, RESULT_LINE, HarnessError, Nic,
                     VmRun)
from .disk import build_disk, fat_partition
from .monitor import Monitor
from .firmware import default as firmware_default
from .firmware import secure_build
from .qemu import check_tools, qemu_command, web_tap
from .web import WebNetwork
from .report import test_name

# What the manager prints when it waits for a key that only a person can press.
WAITING_LINES = ("Press a key to continue, ESC to abort.", "Choose an item with its number, ESC to cancel.")
# VexRun's menu waits for a key after each of these lines, in the manager's language.
WAITING_PREFIX = "FRONT hint="
# The lines of a quiet boot's serial log that its error quotes.
SERIAL_TAIL = 25


def _question(serial):
    """Names the question the manager waits on: the last prompt (number and text) or menu."""
    prompt = None
    for line in serial.splitlines():
        m = re.match(r"PROMPT message=(\d+)", line)
        if m:
            prompt = f"prompt {m.group(1)}"
        m = re.match(r"PROMPT text=(.*)", line)
        if m and prompt:
            prompt = f'{prompt.split(" (")[0]} ("{m.group(1).strip()}")'
        if line.startswith("MENU "):
            prompt = "a menu"
        if line.startswith("FRONT screen="):
            prompt = "VexRun's menu of tests (answer it with a --script of front lines: front test NAME, front run, ...)"
    return prompt or "a question"


class _Keyboard:
    """The user's terminal in character mode while the VM runs; restored on every way out."""

    def __init__(self):
        self.fd = sys.stdin.fileno()
        self.saved = termios.tcgetattr(self.fd)
        tty.setcbreak(self.fd)  # Ctrl-C still interrupts
        self.old_handler = signal.signal(signal.SIGTERM, self._terminate)

    def _terminate(self, *_):
        self.restore()
        sys.exit(2)

    def read(self):
        data = os.read(self.fd, 64)
        # Enter is a carriage return on a serial console.
        return data.replace(b"\n", b"\r")

    def restore(self):
        if self.saved is not None:
            termios.tcsetattr(self.fd, termios.TCSADRAIN, self.saved)
            self.saved = None
            signal.signal(signal.SIGTERM, self.old_handler)


def clean_serial(raw):
    text = raw.decode("utf-8", "replace")
    return ESCAPE.sub("", text).replace("\r", "")


def run_vm(cfg):
    """Boots the VM once, runs every call of cfg, and returns what came back."""
    last_dir = cfg.last_dir or LAST_DIR
    if cfg.firmware is None:
        cfg.firmware = firmware_default()
    check_tools(cfg.firmware.arch)
    if cfg.secure_boot:
        secure_build(cfg.firmware)
    if cfg.nics is None:
        cfg.nics = [Nic()]
    start = time.time()
    work = tempfile.mkdtemp(prefix="wirecheck-vm-")
    web = None
    try:
        disk = cfg.image or build_disk(cfg, work)
        vars_copy = os.path.join(work, "vars.fd")
        source = secure_build(cfg.firmware)[1] if cfg.secure_boot else cfg.firmware.vars
        if source:
            shutil.copy(source, vars_copy)
        else:
            vars_copy = ""  # a combined image keeps its variables in memory
        qmp_path = os.path.join(work, "qmp.sock") if any(not n.link or n.plug for n in cfg.nics) else ""
        if any(n.web for n in cfg.nics):
            web = WebNetwork([web_tap(i) for i, n in enumerate(cfg.nics) if n.web], cfg.web_files, work,
                             cfg.netboot)
            web.__enter__()
        peers = Peers(cfg.nics, work)
        command = qemu_command(cfg, disk, vars_copy, qmp_path, peers.sockets, peers.qmp,
                               web.cacerts if web else None, served_folder(cfg.web_files, work))
        proc = subprocess.Popen(web.inside(command) if web else command, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        deadline = start + cfg.timeout
        raw = bytearray()
        arrivals = []  # (seconds since start, length of the raw output so far)
        skipped = False
        timed_out = silent = no_boot = False
        boot_failures = []
        last_output = time.time()
        unanswerable = None
        pending = b""
        keyboard = _Keyboard() if cfg.keyboard else None
        qmp = None
        try:
            if qmp_path:
                qmp = Monitor(qmp_path, cfg.nics, deadline)
            while proc.poll() is None:
                if time.time() > deadline:
                    timed_out = True
                    break
                if cfg.silence and time.time() - last_output > cfg.silence:
                    silent = timed_out = True
                    break
                if peers.stopped():
                    break
                sources = [proc.stdout] + ([sys.stdin] if keyboard and skipped else [])
                ready, _, _ = select.select(sources, [], [], 0.2)
                if sys.stdin in ready:
                    keys = keyboard.read()
                    if keys:
                        proc.stdin.write(keys)
                        proc.stdin.flush()
                if proc.stdout in ready:
                    chunk = os.read(proc.stdout.fileno(), 65536)
                    if not chunk:
                        # The serial side closed: QEMU is on its way out after "reset -s".
                        try:
                            proc.wait(timeout=max(1, min(15, deadline - time.time())))
                        except subprocess.TimeoutExpired:
                            timed_out = True
                        break
                    raw += chunk
                    last_output = time.time()
                    arrivals.append((time.time() - start, len(raw)))
                    # The shell counts down before startup.nsh; any key but ESC skips the wait. A
                    # manager booted from an image waits for a key before it powers off.
                    if not skipped and (b"seconds to skip" in raw or b"VEXRUN DONE" in raw):
                        proc.stdin.write(b" ")
                        proc.stdin.flush()
                        skipped = True
                    pending += chunk
                    *complete, pending = pending.split(b"\n")
                    for line in complete:
                        text = clean_serial(line).strip()
                        if qmp:
                            qmp.on_line(text)
                        if cfg.on_line:
                            cfg.on_line(text)
                        if not cfg.keyboard and not cfg.script and (text in WAITING_LINES
                                                                    or text.startswith(WAITING_PREFIX)):
                            unanswerable = _question(clean_serial(bytes(raw)))
                        if text.startswith("BdsDxe: failed to "):
                            boot_failures.append(text.removeprefix("BdsDxe: "))
                        if text.startswith("BdsDxe: No bootable option"):
                            no_boot = True  # the firmware now waits for a key to open its menu
                    if unanswerable or no_boot:
                        break
        finally:
            peers.stop()
            if qmp:
                qmp.close()
            if keyboard:
                keyboard.restore()
            if proc.poll() is None:
                proc.kill()
            rest, err = proc.communicate()
            raw += rest or b""
            if web:
                web.__exit__(None, None, None)
        serial = clean_serial(bytes(raw))

        if os.path.isdir(last_dir):
            shutil.rmtree(last_dir)
        os.makedirs(last_dir)
        with open(os.path.join(last_dir, "serial.log"), "w") as f:
            f.write(serial)
        peers.keep_logs(last_dir)
        if web:
            web.keep_logs(last_dir)
        subprocess.run(["mcopy", "-s", "-n", "-i", fat_partition(disk), "::/", last_dir + "/"], capture_output=True)

        if cfg.image:
            # The manager and its files sit in the boot directory of the image.
            boot_dir = os.path.join(last_dir, "EFI", "BOOT")
            for name in os.listdir(boot_dir) if os.path.isdir(boot_dir) else []:
                shutil.copy(os.path.join(boot_dir, name), last_dir)
        output = _read_text(os.path.join(last_dir, "VexRun.out"))
        log = _read_text(os.path.join(last_dir, "VexRun.log"))
        if output is None:
            # The manager did not get to write its files: take its console from the serial log.
            m = re.search(r"VEXRUN BEGIN\n(.*?)(VEXRUN END[^\n]*\n|\Z)", serial, re.S)
            output = (m.group(0) if m else "")
        results, meanings = [], []
        for line in output.splitlines():
            m = RESULT_LINE.match(line)
            if m:
                results.append((m.group(1), int(m.group(2), 16), m.group(3).strip()))
                meanings.append(m.group(4) or "")
        run = VmRun(serial=serial, output=output, log=log or "", results=results, files_dir=last_dir,
                    elapsed=time.time() - start, line_times=_line_times(bytes(raw), arrivals), meanings=meanings)
        if peers.failure:
            # The disk's files are kept too: what the module logged up to the moment the network went.
            raise HarnessError(f"{peers.failure} (files in {last_dir})", run)
        if unanswerable:
            raise HarnessError(f"{unanswerable} is waiting for an answer and there is no terminal to give one; "
                               f"answer it with --script FILE (a line 'prompt ok' or 'prompt abort', "
                               f"'menu N' or 'menu cancel') or run from a terminal")
        if no_boot:
            raise HarnessError("the firmware booted nothing: " + "; ".join(boot_failures) +
                               (" (with Secure Boot on, the image's binaries must be signed with a key in the "
                                "firmware's db: ./wirecheck image --sign KEY --cert CERT)" if cfg.secure_boot else ""))
        if timed_out:
            # The calls that finished before the VM stopped answering are kept (the manager writes its
            # files through after every call).
            what = f"printed nothing for {cfg.silence} s" if silent else f"did not finish within {cfg.timeout} s"
            # The serial log's end goes with the error: a suite run removes its folders, and where
            # the firmware stopped is the one thing to know of a boot that went quiet.
            tail = "\n".join("  | " + line for line in serial.rstrip().splitlines()[-SERIAL_TAIL:])
            raise HarnessError(f"the VM {what} (serial log in {last_dir}); it ended:\n{tail}", run)
        if proc.returncode != 0:
            raise HarnessError(f"QEMU failed ({proc.returncode}): {err.decode(errors='replace').strip()}")
        if "VEXRUN END" not in output and not cfg.netboot:
            raise HarnessError(f"the manager did not finish (serial log in {last_dir})", run)
        return run
    finally:
        if web:
            web.__exit__(None, None, None)
        shutil.rmtree(work, ignore_errors=True)


def served_folder(files, work):
    """A folder of the files a user network serves (links to them), or "" without any."""
    if not files:
        return ""
    folder = os.path.join(work, "served")
    os.makedirs(folder, exist_ok=True)
    for local in files:
        os.symlink(os.path.abspath(local), os.path.join(folder, os.path.basename(local)))
    return folder


class Peers:
    """The scripted peers of the NICs that have one: started before QEMU (which connects to their
    sockets), watched while the VM runs, stopped after it. A peer that ends early ends the run."""

    def __init__(self, nics, work):
        self.sockets, self.procs, self.logs, self.qmp, self.failure = {}, {}, {}, {}, ""
        for index, nic in enumerate(nics):
            if not nic.peer:
                continue
            path, log = os.path.join(work, f"peer{index}.sock"), os.path.join(work, f"peer-{index}.log")
            env = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
            command = [sys.executable, "-m", "wcvm.peer", path, nic.peer, log]
            if nic.peer == "link-flap":
                # A monitor socket of the peer's own, to drop and raise the NIC's link.
                self.qmp[index] = os.path.join(work, f"peer{index}-qmp.sock")
                command += [self.qmp[index], f"n{index}"]
            self.procs[index] = subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            self.sockets[index], self.logs[index] = path, log
        deadline = time.time() + 10
        for index, proc in self.procs.items():
            while not os.path.exists(self.sockets[index]):
                if proc.poll() is not None or time.time() > deadline:
                    why = self._why(index)
                    self.stop()
                    raise HarnessError(f"the network peer of NIC {index + 1} did not start: {why}")
                time.sleep(0.02)

    def _why(self, index):
        proc = self.procs[index]
        err = proc.stderr.read().decode(errors="replace").strip() if proc.poll() is not None else ""
        return err.splitlines()[-1] if err else f"exit status {proc.returncode}"

    def stopped(self):
        """TRUE once a peer has ended while the VM runs; the failure says which and why."""
        for index, proc in self.procs.items():
            if proc.poll() is not None and not self.failure:
                self.failure = f"the network peer of NIC {index + 1} stopped during the run ({self._why(index)})"
        return bool(self.failure)

    def stop(self):
        for proc in self.procs.values():
            if proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
            proc.stderr.close()

    def keep_logs(self, last_dir):
        for index, log in self.logs.items():
            if os.path.exists(log):
                shutil.copy(log, os.path.join(last_dir, f"peer-{index + 1}.log"))


def _line_times(raw, arrivals):
    """Each complete serial line with the time its last byte arrived."""
    timed, begin, index = [], 0, 0
    for end in range(len(raw)):
        if raw[end] != 0x0A:
            continue
        while index < len(arrivals) and arrivals[index][1] <= end:
            index += 1
        when = arrivals[min(index, len(arrivals) - 1)][0] if arrivals else 0.0
        timed.append((when, clean_serial(raw[begin:end + 1]).strip()))
        begin = end + 1
    return timed


def _read_text(path):
    if not os.path.exists(path):
        return None
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "replace").replace("\r", "")


PROGRESS_LINE = re.compile(r"^PROGRESS \[([#.]+)\]\s*(\d+)% (\d+) s left$")
# Lines that ask the operator something: at a terminal they stand out.
QUESTION_LINES = ("PROMPT ", "MENU ", WAITING_PREFIX) + WAITING_LINES
STANDOUT, PLAIN, CLEAR_LINE = "\x1b[1;7m", "\x1b[0m", "\r\x1b[2K"


class LivePrinter:
    """Prints the manager's console as it arrives: the module's lines, progress and prompts, and
    one RESULT line per call. At a terminal the progress reports redraw one status line at the
    bottom (test, bar, percent, seconds left) and questions stand out; close() leaves the terminal
    as it was. In a pipe or a file every line is printed as it came."""

    def __init__(self, verbose, terminal=False, out=None):
        self.verbose = verbose
        self.terminal = terminal
        self.out = out or sys.stdout
        self.inside = False
        self.results = []
        self.test = ""  # the test of the call under way
        self.status = ""  # the status line as drawn, "" when none is

    def __call__(self, line):
        if line.startswith("VEXRUN BEGIN"):
            self.inside = True
            return
        if not self.inside:
            return
        if line.startswith("VEXRUN END"):
            self.inside = False
            return
        if line.startswith("CALL options="):
            self.test = test_name(line.removeprefix("CALL options='").removesuffix("'"))
        progress = PROGRESS_LINE.match(line) if self.terminal else None
        if progress:
            self._draw_status(*progress.groups())
            return
        if RESULT_LINE.match(line):
            self.results.append(line)
            self._clear_status()
        elif not self.verbose and line.startswith(MANAGER_LINES):
            return
        self._print(line)

    def close(self):
        if self.terminal:
            self._clear_status()
            self.out.write(PLAIN)
            self.out.flush()

    def _print(self, line):
        if not self.terminal:
            print(line, file=self.out, flush=True)
            return
        question = line.startswith(QUESTION_LINES)
        if question:
            self.status = ""  # the operator's attention goes to the question
        self.out.write(CLEAR_LINE + (STANDOUT + line + PLAIN if question else line) + "\n" + self.status)
        self.out.flush()

    def _draw_status(self, bar, percent, seconds):
        width = shutil.get_terminal_size().columns - 1
        self.status = f"{self.test} [{bar}] {int(percent):3d}% {seconds} s left"[:width]
        self.out.write(CLEAR_LINE + self.status)
        self.out.flush()

    def _clear_status(self):
        if self.status:
            self.out.write(CLEAR_LINE)
            self.out.flush()
            self.status = ""
