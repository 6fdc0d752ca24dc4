"""The command line of the server: what each option does, and how each wrong one ends, in text and exit value."""
import base64
import json
import os
import pathlib
import re
import shlex
import socket
import subprocess

from client import Client, Closed
from harness import (BUILD, DRIVERS, LAUNCHERS, MPIS, PATIENCE, SERVER, Case, Process, free_port, main, wait_until)

DATA = pathlib.Path(__file__).resolve().parents[1] / "data/options/refused.txt"
INVALID = 2


def encoded(text):
    return base64.b64encode(text.encode()).decode()


def refused():
    """The rows of the data: whether it is for jobs too, exit value, stream, words, text."""
    for line in DATA.read_text().splitlines():
        if not line.startswith("#"):
            command, _, text = line.partition(" => ")
            status, stream, *words = shlex.split(command)
            yield status.startswith("*"), int(status.strip("*")), stream, words, text.replace("\\n", "\n")


class Refused(Case):
    def run_server(self, *words, launcher=(), **environment):
        return subprocess.run([*launcher, str(SERVER), *words], capture_output=True, text=True, cwd=self.room.work,
                              stdin=subprocess.DEVNULL, env=self.room.environment(**environment), timeout=20 * PATIENCE)

    def setUp(self):
        super().setUp()
        (self.room.work / "full.sim").write_text("content")
        (self.room.work / "folder").mkdir()

    def test_wrong_words(self):
        for _, status, stream, words, text in refused():
            with self.subTest(words=words):
                answer = self.run_server(*words)
                self.assertEqual(answer.returncode, status, answer)
                self.assertIn(text, answer.stdout if stream == "out" else answer.stderr)
        self.assertEqual((self.room.work / "full.sim").read_text(), "content")
        self.nothing_left()

    def test_library_that_is_no_driver(self):
        module = self.room.work / "libOrvexHpeMpi.so"
        for library, text in (("libOrvexNoDriver.so", "isn't an MPI driver: it has no symbol \"orvexMpiDriver\""),
                              ("libOrvexOtherVersion.so",
                               "is an MPI driver with interface version 77, but version 2 is needed")):
            with self.subTest(library=library):
                module.unlink(missing_ok=True)
                module.symlink_to(BUILD / "lib" / library)
                answer = self.run_server("-mpi", "hpe", LD_LIBRARY_PATH=str(self.room.work))
                self.assertEqual(answer.returncode, 1, answer)
                self.assertIn(f"Failed to initialize MPI wrapper: {module} {text}", answer.stderr)

    def test_in_a_job(self):
        """The same words under a launcher: each rank fails alike, or the master ends the job. Nothing hangs."""
        for mpi in MPIS:
            for in_jobs, status, _, words, text in refused():
                if in_jobs:
                    with self.subTest(mpi=mpi, words=words):
                        answer = self.run_server("-mpi", DRIVERS[mpi], *words[1:], launcher=[*LAUNCHERS[mpi], "3"])
                        self.assertEqual(answer.returncode, status, answer)
                        self.assertIn(answer.stderr.count(text), (1, 2), answer.stderr)
                        wait_until(lambda: not self.room.processes(), 5 * PATIENCE, "all ranks are gone")

    def test_questions(self):
        """Answered without a launcher, and once under one; the README shows options as --help does."""
        listed = {line.split("  ")[1] for line in self.run_server("--help").stdout.splitlines() if line.startswith("  -")}
        readme = pathlib.Path(__file__).parents[3] / "README.md"
        rows = re.findall(r"(?m)^\| (.*`--?[a-z].*`) \|", readme.read_text().partition("## Options")[2].partition("\n## ")[0])
        shown = set(re.findall(r"`(-[^`]*)`", re.sub("(disable|wait)`", "WORD`", " ".join(rows))))
        self.assertGreater(len(shown), 20)
        self.assertLessEqual(shown, listed)
        for launcher in ([], *([*LAUNCHERS[mpi], "3"] for mpi in MPIS)):
            answer = self.run_server("-session", "--help", "--version", launcher=launcher)
            self.assertRegex(answer.stdout, r"\A\S+ \S+ (development version )?\(.*\)\n\Z")
            self.assertEqual((answer.returncode, answer.stderr), (0, ""))

    def test_wrong_launcher(self):
        """A driver under the launcher of the other MPI would make jobs of one rank each."""
        for mpi in MPIS:
            for other in MPIS:
                if other == mpi:
                    continue
                with self.subTest(launcher=mpi, driver=other):
                    answer = self.run_server("-mpi", DRIVERS[other], launcher=[*LAUNCHERS[mpi], "2"])
                    self.assertNotEqual(answer.returncode, 0)
                    self.assertRegex(answer.stderr, r"(?m)^The launcher of .* started this process \(rank [01] of 2\)")
                    self.assertIn("\norvexsim: Server error: MPI failed to initialize\n", "\n" + answer.stderr)
                    self.assertNotIn("Serial process", answer.stdout)
                    wait_until(lambda: not self.room.processes(), 5 * PATIENCE, "all ranks are gone")

    def test_slurm_step(self):
        """srun that doesn't serve the MPI would make jobs of one rank; a batch script and mpirun in it are right."""
        batch = {"SLURM_NTASKS": "2", "SLURM_PROCID": "0"}
        step = {"SLURM_NTASKS": "2", "SLURM_PROCID": "1", "SLURM_STEP_NUM_TASKS": "2"}
        passed = "Unrecognized argument '-nonsense'"
        lost = "Slurm started this process (task 1 of 2) without what MPICH needs"
        rows = [("mpich2", (), step, lost), ("mpich2", (), batch, passed)]
        rows += [(DRIVERS[mpi], [*LAUNCHERS[mpi], "2"], step, passed) for mpi in MPIS]
        for driver, launcher, environment, text in rows:
            if driver in (DRIVERS[mpi] for mpi in MPIS):
                with self.subTest(driver=driver, launcher=launcher, environment=environment):
                    answer = self.run_server("-mpi", driver, "-nonsense", launcher=launcher, **environment)
                    self.assertNotEqual(answer.returncode, 0)
                    self.assertIn(text, answer.stderr)
                    self.assertEqual("srun --mpi=pmi2" in answer.stderr, text == lost)


class Taken(Case):
    def setUp(self):
        super().setUp()
        (self.room.work / "plain").touch()

    def test_words_of_a_server(self):
        """One server with what its road only takes along, as it prints and answers."""
        (self.room.work / "ext.sim").touch()
        job = self.ready("ext", "-xnousage", "-time", "-deleteOnExit", "-cpubind", "bandwidth", "-cpubindverbose",
                         "-cpubindcontentiontest", "disable", "-iodebug", "2", "-pio", "-printpids", "-xnodeverrors",
                         "-xthreadbindoff", "-xthreadbindverbose", "-taskid", "0", "-rrthreads", "2", "-xmpidriver", "x",
                         "-xmpiversion", "y", "-rsh", "ssh", "-mpi", "intel", "-jobmanagerurl", "u://v", "-taskid", "7",
                         "-encoded-param", encoded("k"), encoded("v"), "-encoded-passtodesign", encoded("p"),
                         "-procfile", "nowhere/pids", "-tmpdir", "plain", environment=self.consent())
        self.assertEqual(os.path.basename(job.record()["name"]), "ext.sim")
        self.assertRegex(job.out(), rf"(?s)Serial process {job.process.pid}\n.*\n\S.* \(.+/.+\)\n\n")
        self.assertIn("Warning : could not open process file : nowhere/pids\nNo such file or directory (error 2)\n",
                      job.out())
        self.stop(job)
        self.assertEqual(list(self.room.top.rglob("usage.jsonl")), [])

    def consent(self):
        """The environment of a site that keeps a record of usage."""
        (self.room.top / "home/orvex").mkdir()
        (self.room.top / "home/orvex/settings.json").write_text('{"UsageImprovementProgram": 1}')
        return {name: str(self.room.top / "home") for name in ("XDG_CONFIG_HOME", "XDG_STATE_HOME")}

    def test_places(self):
        """Port, files and folders; clients don't see the session, but who has the key gets in, on loopback alone."""
        port = free_port()
        (self.room.work / "pids").write_text("something older that is longer than the line which takes its place\n\n")
        job = self.ready("-port", port, "-loc", "-procfile", "pids", "-tmpdir", self.room.work / "made", "-new", "new.sim",
                         "-encoded-dmrunfile", encoded("run"),
                         environment=self.consent())
        self.assertEqual(job.record()["port"], port)
        self.assertLessEqual(self.listening(job), {"0100007F", "00000000000000000000000001000000"})
        self.assertNotIn(str(job.process.pid), job.ctl("list-sessions").stdout)
        self.assertEqual(job.run("GetProcessFileName")["filename"], "pids")
        first = Client(job.record())
        with self.assertRaises(Closed):
            Client(job.record())  # one at a time
        first.close()
        self.assertRegex((self.room.work / "pids").read_text(), rf"^[^:\s]+:{job.process.pid}\n$")
        self.assertTrue((self.room.work / "made").is_dir())
        self.assertEqual((self.room.work / "new.sim").read_text(), "")
        second = self.start("-port", port, "-portrange", "1")
        self.assertEqual(second.wait(), 32, second.told())
        self.assertIn(str(port), second.err())
        usage = [json.loads(line) for path in self.room.top.rglob("usage.jsonl") for line in open(path, encoding="utf-8")]
        self.assertEqual([(line["Event"], line["Attributes"]["mode"]) for line in usage],
                         [("COMMAND_LINE_PARAMETERS", "Design Study")])
        self.stop(job)

    def test_no_clients(self):
        port = free_port()
        job = self.start("-noconnect", "-port", port)
        wait_until(lambda: job.out().endswith(")\n\n"), 10 * PATIENCE, job.told)
        with self.assertRaises(OSError):
            socket.create_connection(("127.0.0.1", port), timeout=1)
        job.process.terminate()
        self.assertEqual(job.wait(), 0, job.told())
        self.nothing_left()

    def listening(self, job):
        """The addresses, as the kernel writes them, at which the server's port is open."""
        port = job.record()["port"]
        addresses = {line.split()[1].rpartition(":")[0] for table in ("tcp", "tcp6")
                     for line in Process(job.process.pid).read(f"net/{table}").decode().splitlines()[1:]
                     if line.split()[3] == "0A" and line.split()[1].endswith(f":{port:04X}")}
        self.assertTrue(addresses)
        return addresses

    def test_client_address(self):
        """The network is served, but that client alone; any other is told so, before it says a word."""
        job = self.ready("-xclientaddr", "127.0.0.1")
        self.assertLessEqual(self.listening(job), {"00000000", "0" * 32})
        with socket.create_connection(("127.0.0.1", job.record()["port"]), 5, source_address=("127.0.0.2", 0)) as other:
            told = b"".join(iter(lambda: other.recv(4096), b"")).decode()
        self.assertIn("127.0.0.2 isn't the client 127.0.0.1", told + job.err() + job.out())
        self.stop(job)
        refused = self.start("-xclientaddr", "no.such.host.invalid")
        self.assertNotEqual(refused.wait(), 0, refused.told())
        self.assertIn("no.such.host.invalid", refused.err())

    def test_process_file_of_a_job(self):
        """Lines run from rank 1 upward, the master's comes last; the debugger line has them in rank order."""
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready("-procfile", f"pids-{mpi}", "-totalview", mpi=mpi, ranks=3)
                pids = [job.members()[rank].pid for rank in range(3)]
                lines = (self.room.work / f"pids-{mpi}").read_text().splitlines()
                self.assertEqual([int(line.rpartition(":")[2]) for line in lines], [pids[1], pids[2], pids[0]])
                self.assertIn("Copy and paste into totalview command window : \ndattach orvexsim "
                              + "".join(f"{pid} " for pid in pids) + "\n", job.out())
                self.stop(job)


if __name__ == "__main__":
    main()
