# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Runs one host once, with the plug-in or without, and records all that can be seen of it."""

import ctypes
import dataclasses
import http.client
import os
import pathlib
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import threading
import time

BUILD = pathlib.Path("build/hosts/hosts").resolve()
WORK = pathlib.Path("build/hosts/work").resolve()
UNPACKED = pathlib.Path("build/hosts/nginx/usr/sbin").resolve()
PROGRAMS = f"/usr/sbin:/usr/bin:/sbin:/bin:{UNPACKED}"
# In the modes "before" and "idle" the plug-in is preloaded, in these two the host loads it.
LOADED_LATER = ("after", "busy")
C_LIBRARY = ctypes.CDLL(None)
ADDR_NO_RANDOMIZE = 0x0040000
FLAGS_OF_CHILDREN = 3  # SA_NOCLDSTOP and SA_NOCLDWAIT
# More than any step takes.
STEP_LIMIT = 15.0


class Stuck(Exception):
    """A step that does not come to its end."""


@dataclasses.dataclass
class Action:
    handler: str
    flags: int
    mask: int
    restorer: str

    @classmethod
    def of(cls, handler, flags, mask, restorer):
        """What the system goes by: without a handler, only what it does with children."""
        if handler in ("default", "ignored"):
            return cls(handler, flags & FLAGS_OF_CHILDREN, 0, "none")
        return cls(handler, flags, mask, restorer)

    def __str__(self):
        if self.restorer == "none" and not self.flags:
            return self.handler
        return (f"{self.handler} (flags {self.flags:#x}, mask {self.mask:#x}, "
                f"restorer {self.restorer})")


@dataclasses.dataclass
class Snapshot:
    program: str = ""
    actions: dict = dataclasses.field(default_factory=dict)
    sets: dict = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class Record:
    status: str = ""
    output: list = dataclasses.field(default_factory=list)
    errors: list = dataclasses.field(default_factory=list)
    answers: list = dataclasses.field(default_factory=list)  # to what the steps asked the host
    files: list = dataclasses.field(default_factory=list)
    snapshots: dict = dataclasses.field(default_factory=dict)
    children: list = dataclasses.field(default_factory=list)  # as programs that it started begin
    counters: dict = dataclasses.field(default_factory=dict)
    loaded: bool = False
    stuck: str = ""
    seconds: float = 0.0


def signal_name(number):
    try:
        return signal.Signals(number).name
    except ValueError:
        return f"signal {number}"


def read_snapshot(path):
    snapshot = Snapshot()
    for line in path.read_text(encoding="utf-8", errors="replace").splitlines():
        if line.startswith("program "):
            snapshot.program = line[len("program "):]
        elif line.startswith("Sig"):
            name, bits = line.split(":")
            snapshot.sets[name] = int(bits, 16)
        else:
            number, handler, flags, mask, restorer = line.split(" ", 4)
            snapshot.actions[int(number)] = Action.of(
                handler, int(flags.partition("=")[2], 16), int(mask.partition("=")[2], 16),
                restorer.partition("=")[2])
    return snapshot


def describe_status(status):
    if os.WIFSIGNALED(status):
        core = ", core" if os.WCOREDUMP(status) else ""
        return f"signal {signal_name(os.WTERMSIG(status))}{core}"
    return f"exit {os.WEXITSTATUS(status)}"


class Lines:
    """What a host writes, line by line, as it comes."""

    def __init__(self, stream):
        self.lines = []
        self.ended = False
        self._seen = 0
        self._stream = stream
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._collect, daemon=True)

    def start(self, changed):
        self._changed = changed
        self._thread.start()

    def _collect(self):
        with self._stream:
            for line in self._stream:
                with self._changed:
                    self.lines.append(line.rstrip("\n"))
                    self._changed.notify_all()
        with self._changed:
            self.ended = True
            self._changed.notify_all()

    def find(self, pattern):
        """Whether a line that no step has seen yet matches."""
        for index in range(self._seen, len(self.lines)):
            if pattern.search(self.lines[index]):
                self._seen = index + 1
                return True
        return False

    def join(self, limit):
        self._thread.join(limit)


class Helper:
    """The probe's thread in the host, which is told through a pipe."""

    def __init__(self, folder):
        self._ends = []
        for name in ("tell", "answer"):
            os.mkfifo(folder / name)
            self._ends.append(os.open(folder / name, os.O_RDWR | os.O_CLOEXEC))

    def tell(self, command):
        tell, answer = self._ends
        os.write(tell, command.encode() + b"\n")
        text = b""
        deadline = time.monotonic() + STEP_LIMIT
        while not text.endswith(b"\n"):
            ready, _, _ = select.select([answer], [], [], max(0.0, deadline - time.monotonic()))
            if not ready:
                raise Stuck(command)
            text += os.read(answer, 64)

    def close(self):
        for end in self._ends:
            os.close(end)


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=STEP_LIMIT)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(STEP_LIMIT)
        self.sock.connect(str(self._path))


def fill_in(text, folder, here):
    for name, value in (("folder", folder), ("here", here), ("build", BUILD)):
        text = text.replace("{" + name + "}", str(value))
    return text


def program_of(scenario):
    """The path of the host's program, or None."""
    program = fill_in(scenario.run[0], "", scenario.here)
    return shutil.which(program, path=PROGRAMS)


def end_session(session):
    """Ends the host, and all that it has started; shells give their jobs groups of their own."""
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text(encoding="utf-8", errors="replace").rpartition(")")[2].split()
            if int(fields[3]) == session:
                os.kill(int(path.parent.name), signal.SIGKILL)
        except (OSError, IndexError):
            pass


def prepare():
    """In the process that is going to be the host: it may leave a core file, and has the same
    addresses in every run, without which some sanitizers do not start."""
    _, most = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (most, most))
    C_LIBRARY.personality(ADDR_NO_RANDOMIZE)


class Run:
    def __init__(self, scenario, mode, form):
        self._scenario = scenario
        self._mode = mode
        self._form = form
        self._folder = WORK / f"{scenario.name.replace('/', '-')}-{form}-{mode}"
        self._record = Record()
        self._helper = None
        self._process = None
        self._streams = []
        self._changed = threading.Condition()
        self._reaped = None
        self._connections = []
        self._answer = None

    def record(self):
        started = time.monotonic()
        shutil.rmtree(self._folder, ignore_errors=True)
        self._folder.mkdir(parents=True)
        try:
            self._start()
            self._take_steps()
        finally:
            self._end()
        self._read_results()
        self._record.seconds = time.monotonic() - started
        return self._record

    def _environment(self):
        probe = BUILD / "probe.so"
        plugin = BUILD / f"plugin-{self._form}.so"
        environment = {
            "PATH": PROGRAMS, "HOME": str(self._folder), "LC_ALL": "C", "TZ": "UTC",
            "TMPDIR": str(self._folder),
            "SORVANE_HOSTS_FOLDER": str(self._folder), "SORVANE_HOSTS_MODE": self._mode,
            "SORVANE_HOSTS_PROBE": str(probe), "SORVANE_HOSTS_TAKE": str(BUILD / "snapshot.so"),
            "LD_PRELOAD": str(probe)}
        if self._mode in LOADED_LATER:
            environment["SORVANE_HOSTS_LOAD"] = str(plugin)
        elif self._mode != "bare":
            environment["LD_PRELOAD"] += f" {plugin}"
        if self._scenario.helper:
            environment["SORVANE_HOSTS_HELPER"] = "1"
        for name, value in self._scenario.env.items():
            environment[name] = self._fill_in(value)
        return environment

    def _fill_in(self, text):
        return fill_in(text, self._folder, self._scenario.here)

    def _start(self):
        for name, text in self._scenario.write.items():
            path = self._folder / name
            path.parent.mkdir(parents=True, exist_ok=True)
            text = self._fill_in(text).replace("{many}", "a line of many\n" * 2000)
            path.write_text(text, encoding="utf-8")
        for name in self._scenario.folders:
            (self._folder / name).mkdir()
        if self._scenario.helper:
            self._helper = Helper(self._folder)
        command = [program_of(self._scenario)] + [self._fill_in(a) for a in self._scenario.run[1:]]
        talks = any(step.split()[0] in ("type", "close") for step in self._scenario.steps)
        self._process = subprocess.Popen(
            command, cwd=self._folder, env=self._environment(),
            stdin=subprocess.PIPE if talks else subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, errors="replace", start_new_session=True,
            preexec_fn=prepare)
        self._streams = [Lines(self._process.stdout), Lines(self._process.stderr)]
        for stream in self._streams:
            stream.start(self._changed)

    def _take_steps(self):
        for step in self._scenario.steps:
            verb, _, rest = step.partition(" ")
            try:
                getattr(self, f"_step_{verb}")(self._fill_in(rest))
            except (Stuck, OSError, http.client.HTTPException) as error:
                self._record.stuck = f'"{step}": {type(error).__name__}'
                return
        deadline = time.monotonic() + STEP_LIMIT
        if not self._wait_for_end(deadline):
            self._record.stuck = "the end"

    def _wait_for_end(self, deadline):
        # A descriptor that becomes readable at the end.
        end = os.pidfd_open(self._process.pid)
        try:
            ready, _, _ = select.select([end], [], [], max(0.0, deadline - time.monotonic()))
        finally:
            os.close(end)
        if ready:
            _, self._reaped = os.waitpid(self._process.pid, 0)
            self._process.returncode = 0
        return bool(ready)

    def _end(self):
        if self._process is None:
            return
        end_session(self._process.pid)
        if self._reaped is None:
            _, self._reaped = os.waitpid(self._process.pid, 0)
            self._process.returncode = 0
        if self._process.stdin is not None:
            try:
                self._process.stdin.close()
            except OSError:
                pass
        for stream in self._streams:
            stream.join(STEP_LIMIT)
        for connection in self._connections:
            connection.close()
        if self._helper is not None:
            self._helper.close()

    # ---- Steps ---------------------------------------------------------------------------------

    def _step_wait(self, text):
        """For a line of the host's, of those that are still to come or that no step has seen."""
        pattern = re.compile(text)
        deadline = time.monotonic() + STEP_LIMIT
        with self._changed:
            while not any([stream.find(pattern) for stream in self._streams]):
                over = all(stream.ended for stream in self._streams)
                if over or not self._changed.wait(deadline - time.monotonic()):
                    raise Stuck(text)

    def _step_send(self, name):
        os.kill(self._process.pid, signal.Signals[f"SIG{name}"])

    def _step_type(self, text):
        numbers = "".join(f"{number}\n" for number in range(2000, 0, -1))
        self._process.stdin.write(text.replace("\\n", "\n").replace("{numbers}", numbers))
        self._process.stdin.flush()

    def _step_close(self, _):
        self._process.stdin.close()

    def _step_load(self, _):
        self._helper.tell("load")

    def _step_unload(self, _):
        self._helper.tell("unload")

    def _step_snapshot(self, name):
        self._helper.tell(f"snapshot {name}")

    def _step_write(self, text):
        name, _, content = text.partition(" ")
        (self._folder / name).write_text(content.replace("\\n", "\n"), encoding="utf-8")

    def _step_ask(self, path):
        """Asks, and waits until an answer begins; the rest is for "hear"."""
        connection = UnixConnection(self._folder / "socket")
        self._connections.append(connection)
        connection.request("GET", path)
        self._answer = connection.getresponse()

    def _step_hear(self, _):
        body = self._answer.read().decode(errors="replace")
        self._record.answers += [f"{self._answer.status}: {len(body)} bytes, {body[:20].strip()}"]

    def _step_get(self, path):
        self._step_ask(path)
        self._step_hear("")

    # ---- Results -------------------------------------------------------------------------------

    def _normalised(self, lines):
        result = []
        for line in lines:
            line = line.replace(str(self._folder), "FOLDER")
            line = re.sub(r"0x[0-9a-f]{6,}", "ADDRESS", line)
            for pattern, replacement in self._scenario.normalise:
                line = re.sub(pattern, replacement, line)
            if not any(re.search(pattern, line) for pattern in self._scenario.leave_out):
                result.append(line)
        return sorted(result) if self._scenario.unordered else result

    def _read_results(self):
        record = self._record
        record.status = describe_status(self._reaped)
        record.output = self._normalised(self._streams[0].lines)
        record.errors = self._normalised(self._streams[1].lines)
        record.files = [f"{name}: {len(list((self._folder / name).iterdir()))} files"
                        for name in self._scenario.folders]
        host = str(self._process.pid)
        started = False
        for path in sorted(self._folder.glob("*.snapshot")):
            name, pid, _ = path.name.rsplit(".", 2)
            if name.startswith("start-"):
                # The first one of all is the host's own.
                if started:
                    record.children.append(read_snapshot(path))
                started = True
            elif pid == host:
                record.snapshots[name] = read_snapshot(path)
        counters = (self._folder / "counters")
        if counters.exists():
            values = memoryview(counters.read_bytes()).cast("I")
            record.loaded = values[0] != 0
            record.counters = {signal_name(n): values[n] for n in range(1, 65) if values[n]}
        shutil.rmtree(self._folder, ignore_errors=True)
