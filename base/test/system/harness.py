"""Starts servers and jobs as a user does, and looks at them from outside.

Each test case gets a room of its own: a folder for home, session records and temporary files, and a mark in the
environment by which each process of the room is found again, whoever its parent is by then. Leaving the room
ends what still runs and tells whether anything was left behind.
"""
import contextlib
import json
import os
import pathlib
import pwd
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import uuid

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "cluster"))

BUILD = pathlib.Path(os.environ.get("ORVEX_BUILD_DIR", "build/release")).resolve()
SERVER = BUILD / "bin/orvexsim"
CLIENT = BUILD / "bin/orvexctl"
MARK = "ORVEX_TEST_ROOM"

# A build with sanitizers, or a busy machine, is allowed this much more time.
PATIENCE = float(os.environ.get("ORVEX_TEST_PATIENCE", "1"))
START_LIMIT = 30 * PATIENCE
STOP_LIMIT = 20 * PATIENCE

DRIVERS = {"openmpi": "openmpi4", "mpich": "mpich2"}
LAUNCHERS = {
    "openmpi": ["mpirun.openmpi", "--allow-run-as-root", "--oversubscribe", "--bind-to", "none", "-np"],
    "mpich": ["mpiexec.mpich", "-n"],
}
MPIS = [mpi for mpi in LAUNCHERS if shutil.which(LAUNCHERS[mpi][0])]

# The folders of the session records of this user, whatever the environment says.
RECORDS = [pathlib.Path(pwd.getpwuid(os.getuid()).pw_dir) / ".local/state/orvex/sessions",
           pathlib.Path(f"/tmp/orvex-{os.getuid()}/sessions")]


def record_of(process):
    """The path of the session record of a server process, None when it has none."""
    return next((path for folder in RECORDS for path in folder.glob(f"*-{process.own_pid()}.session")), None)


def wait_until(condition, limit, what):
    """The first true value of condition(); fails after limit seconds."""
    end = time.monotonic() + limit
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {limit:g} s: {what() if callable(what) else what}")
        time.sleep(0.02)
    return value


class Process:
    """A process as /proc shows it."""

    def __init__(self, pid):
        self.pid = pid

    def read(self, name):
        try:
            return (pathlib.Path("/proc") / str(self.pid) / name).read_bytes()
        except OSError:
            return b""

    def environment(self):
        pairs = (entry.partition(b"=") for entry in self.read("environ").split(b"\0"))
        return {key.decode(errors="replace"): value.decode(errors="replace") for key, _, value in pairs}

    def words(self):
        return self.read("cmdline").decode(errors="replace").split("\0")[:-1]

    def alive(self):
        stat = self.read("stat").decode(errors="replace")
        return ")" in stat and stat.rpartition(")")[2].split()[0] not in ("Z", "X")

    def own_pid(self):
        """The identifier that the process itself knows: on a host made of namespaces, another than we see."""
        numbers = re.search(rb"\nNSpid:.*\s(\d+)\n", self.read("status"))
        return int(numbers[1]) if numbers else self.pid

    def parent(self):
        return int(self.read("stat").decode(errors="replace").rpartition(")")[2].split()[1])

    def memory(self):
        """Resident memory [bytes]."""
        return int(self.read("statm").split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def open_files(self):
        return os.listdir(f"/proc/{self.pid}/fd")

    def shared_files(self):
        return set(re.findall(r" (/dev/shm/\S+)", self.read("maps").decode(errors="replace")))

    def kill(self, number=signal.SIGKILL):
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.pid, number)


class Room:
    """A folder and a mark for all that one test case starts."""

    def __init__(self):
        self.top = pathlib.Path(tempfile.mkdtemp(prefix="orvex-"))
        self.mark = uuid.uuid4().hex
        self.shared_files = set()
        self.records = set()
        self.work = self.top / "work"
        for name in ("home", "tmp", "work"):
            (self.top / name).mkdir(mode=0o700)

    def environment(self, **more):
        result = {key: value for key, value in os.environ.items()
                  if not key.startswith(("OMPI_", "PMI", "PMIX", "HYDRA", "MPI", "XDG_"))}
        result.update(HOME=str(self.top / "home"), TMPDIR=str(self.top / "tmp"), **{MARK: self.mark})
        result.update(more)
        return result

    def processes(self):
        """All that live in this room, orphans too."""
        mark = f"{MARK}={self.mark}".encode()
        all_there = [Process(int(name)) for name in os.listdir("/proc") if name.isdigit()]
        return [process for process in all_there if mark in process.read("environ").split(b"\0") and process.alive()]

    def servers(self):
        # A process may end between two looks at it: each is looked at once.
        return [p for p in self.processes() if pathlib.Path((p.words() or [""])[0]).name == "orvexsim"]

    def leftovers(self, in_order=False):
        """Things that a job must not leave behind; its work folder belongs to the test. Ranks that died leave their
        profiles, those that ended in order don't."""
        rest = [f"process {p.pid} {' '.join(p.words())}" for p in self.processes()]
        rest += [str(p) for p in (self.top / "tmp").rglob("*") if not p.is_dir()]
        rest += [str(path) for path in (*self.shared_files, *self.records)
                 if os.path.exists(path) and (in_order or "/orvex-profile-" not in str(path))]
        return rest

    def end_all(self):
        for _ in range(3):
            for process in self.processes():
                process.kill()
            time.sleep(0.01)

    def leave(self):
        self.end_all()
        for path in (*self.shared_files, *self.records):
            with contextlib.suppress(OSError):
                os.unlink(path)
        shutil.rmtree(self.top, ignore_errors=True)


class Job:
    """A serial server (mpi None) or a job of `ranks` processes under a launcher, over hosts of a cluster with slots.
    `prefix`: the words of a program that becomes the server."""

    def __init__(self, room, *options, mpi=None, ranks=1, environment=None, cluster=None, slots=None,
                 prefix=()):
        self.room, self.mpi, self.ranks, self.cluster = room, mpi, sum(slots) if slots else ranks, cluster
        if slots:
            command = cluster.job(mpi, slots, *prefix, SERVER, "-mpi", DRIVERS[mpi], *options)
        elif mpi:
            command = [*LAUNCHERS[mpi], str(ranks), *prefix, str(SERVER), "-mpi", DRIVERS[mpi], *map(str, options)]
        else:
            command = [*prefix, str(SERVER), "-s", *map(str, options)]
        if cluster and not slots:
            command = cluster.on(0, *command)
        self.number = len(list(room.top.glob("out-*")))
        with open(room.top / f"out-{self.number}", "wb") as out, open(room.top / f"err-{self.number}", "wb") as err:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=err, cwd=room.work,
                                            env=room.environment(**(environment or {})), start_new_session=True)

    def out(self):
        return (self.room.top / f"out-{self.number}").read_text(errors="replace")

    def printed(self, pattern):
        """Waits until the output holds the pattern: a launcher brings it in its own time."""
        return wait_until(lambda: re.search(pattern, self.out()), 10 * PATIENCE, lambda: f"{pattern}\n{self.told()}")

    def err(self):
        return (self.room.top / f"err-{self.number}").read_text(errors="replace")

    def told(self):
        return f"exit value {self.process.poll()}\n--- out\n{self.out()[-3000:]}\n--- err\n{self.err()[-3000:]}"

    def members(self):
        """The server processes of this job by rank."""
        seen = [(process.environment(), process) for process in self.room.servers()]
        return {int(words.get("OMPI_COMM_WORLD_RANK", words.get("PMI_RANK", "0"))): process for words, process in seen}

    def record(self):
        """The session record of the server; None before it is written."""
        master = self.members().get(0)
        path = record_of(master) if master else None
        self.room.records.update(filter(None, [path]))
        return json.loads(path.read_text()) if path else None

    def wait_ready(self):
        """Until the server takes connections, or says that it takes none."""
        def published():
            if self.process.poll() is not None:
                raise AssertionError("the server ended while it started: " + self.told())
            return self.record()

        wait_until(published, START_LIMIT, lambda: "the server is ready. " + self.told())
        self.room.shared_files.update(*(process.shared_files() for process in self.room.servers()))
        return self

    def _client(self, words):
        path = record_of(self.members()[0])
        command = [str(CLIENT), "--key-file", str(path), *map(str, words)]
        return self.cluster.on(0, *command) if self.cluster else command

    def ctl(self, *words, check=True, limit=20, stdin=None):
        """Runs orvexctl as a user does."""
        answer = subprocess.run(self._client(words), capture_output=True, text=True, input=stdin,
                                stdin=None if stdin is not None else subprocess.DEVNULL, cwd=self.room.work,
                                timeout=limit * PATIENCE, env=self.room.environment(), errors="replace")
        if check and answer.returncode != 0:
            raise AssertionError(f"orvexctl {words}: {answer.returncode}\n{answer.stdout}{answer.stderr}" + self.told())
        return answer

    def ctl_started(self, *words):
        """The same in the background; said() gives what it printed so far."""
        path = self.room.top / f"ctl-{uuid.uuid4().hex}"
        with open(path, "wb") as output:
            client = subprocess.Popen(self._client(words), stdout=output, stderr=subprocess.STDOUT,
                                      stdin=subprocess.DEVNULL, cwd=self.room.work, env=self.room.environment())
        client.said = lambda: path.read_text(errors="replace")
        return client

    def run(self, name, *arguments, **more):
        """Runs a command and gives its result as Python values."""
        return json.loads(self.ctl("--json", name, *arguments, **more).stdout)

    def wait(self, limit=STOP_LIMIT):
        """The exit value, which must come within limit seconds."""
        try:
            return self.process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"the job still runs after {limit:g} s: " + self.told()) from None

    def stop(self):
        """Stops in order, by the client."""
        self.ctl("stop")
        return self.wait()


class Case(unittest.TestCase):
    """A test case with a room; stop() asks that nothing was left in it."""
    maxDiff = None

    def setUp(self):
        self.room = Room()
        self.addCleanup(self.room.leave)

    @contextlib.contextmanager
    def subTest(self, *message, **row):
        """A row that fails doesn't leave its job to the next."""
        with super().subTest(*message, **row):
            try:
                yield
            except BaseException:
                self.room.end_all()
                raise

    def start(self, *options, **more):
        return Job(self.room, *options, **more)

    def ready(self, *options, **more):
        return self.start(*options, **more).wait_ready()

    def nothing_left(self, in_order=False):
        wait_until(lambda: not self.room.processes(), 5 * PATIENCE, lambda: f"all gone: {self.room.leftovers()}")
        self.assertEqual(self.room.leftovers(in_order), [])

    def stop(self, job, expected=0):
        self.assertEqual(job.stop(), expected, job.told())
        self.nothing_left(in_order=expected == 0)


def free_port():
    with contextlib.closing(socket.socket()) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def main():
    unittest.main(verbosity=2, warnings="ignore")
