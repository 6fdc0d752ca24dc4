"""The command line of the server: what each option does, and how each wrong one ends, in text and exit value."""
import base64
import os
import pathlib
import re
import socket
import subprocess
import unittest

from harness import (BUILD, DRIVERS, LAUNCHERS, MPIS, PATIENCE, SERVER, Case, Process, free_port, main, wait_until)

INVALID = 2
ERROR = 1


def encoded(text):
    return base64.b64encode(text.encode()).decode()


# Words after "-s", what stands on the standard error stream, exit value.
REFUSED_SERIAL = [
    *[([word], f"Missing {word} arg", INVALID)
      for word in ("-module", "-xmpiversion", "-xmpidriver", "-rsh", "-tmpdir", "-iodebug", "-cpubind",
                   "-cpubindcontentiontest", "-jobmanagerurl", "-taskid", "-rrthreads", "-rgraphics", "-stoplimit")],
    (["-mpi"], "Missing -mpi arg", INVALID),
    (["-mpidriver"], "Missing -mpi arg", INVALID),
    (["-encoded-param"], "Missing -encoded-param arg arg", INVALID),
    (["-encoded-param", encoded("a")], "Missing -encoded-param arg arg", INVALID),
    (["-cpubind", "fast"],
     "-cpubind argument must be latency/leastload/disable (don't specify anything for bandwidth)", INVALID),
    (["-cpubindcontentiontest", "enabled"], "-cpubindcontentiontest argument must either be enabled/disable", INVALID),
    (["-taskid", "5"], "The options -jobmanagerurl and -taskid must both be specified", INVALID),
    (["-jobmanagerurl", "x://y"], "The options -jobmanagerurl and -taskid must both be specified", INVALID),
    (["-jobmanagerurl", "x://y", "-taskid", "0"], "The options -jobmanagerurl and -taskid must both be specified",
     INVALID),
    (["-rgraphics", "no-such-graphics"], "RendererConfig error: ", ERROR),
    (["-module", "OrvexNowhere"], "DynamicLoader: couldn't load OrvexNowhere.", ERROR),
    (["-port", "x"], "\nInvalid server port number argument.\n", ERROR),
    (["-portrange", "x1"], "\nInvalid server port range number argument.\n", ERROR),
    (["-port", ""], "\nInvalid server port number argument.\n", ERROR),
    (["-port", "-5"], "\nInvalid server port number argument.\n", ERROR),
    *[([word], f"\nUnrecognized argument '{word}'\n", INVALID)
      for word in ("-port", "-portrange", "-session", "-encoded-session", "-xclientaddr", "-procfile", "-proxy",
                   "-encoded-proxycmd", "-encoded-passtodesign", "-encoded-dmrunfile", "-Collab", "--port", "-port=1",
                   "-totalview", "-")],
    (["-encoded-param", "a", "*"], "Invalid value of '-encoded-param': Invalid Base64 text: ", INVALID),
    (["-encoded-session", "*"], "Invalid value of '-encoded-session': Invalid Base64 text: ", INVALID),
    (["-stoplimit", "soon"], "-stoplimit needs a number of seconds", INVALID),
    (["-proxy", "h"], "A proxy server was requested but a command was not provided\n", INVALID),
    (["-dmproject", "-dmpost"], "-dmproject argument is not compatible with -dmpost argument\n", INVALID),
]

# Words without "-s": these processes look for a message layer.
REFUSED_START = [
    *[(words, "The flag -mpidriver or -mpi must be specified", INVALID) for words in ([], ["-S"], ["-mpi=openmpi4"])],
    (["-mpi"], "Missing -mpidriver arg", INVALID),
    (["-mpidriver"], "Missing -mpidriver arg", INVALID),
    (["-mpi", "foo"], "Unknown MPI driver: foo", INVALID),
    (["-mpi", ""], "Unknown MPI driver: ", INVALID),
    (["-mpi", "Intel"], "Unknown MPI driver: Intel", INVALID),
    (["-mpi", "foo", "-mpi", "openmpi4"], "Unknown MPI driver: foo", INVALID),
    (["-mpi", "intel", "-mpidriver", "foo"], "Unknown MPI driver: foo", INVALID),
    (["-mpi", "msmpi", "-xinternalmsmpidll"], "Missing -xinternalmsmpidll arg", INVALID),
    (["-mpi", "hpe"], "Failed to initialize MPI wrapper: ", ERROR),
    (["-mpi", "hpe"], "libOrvexHpeMpi", ERROR),
]

# Files in the working folder: "full.sim" has content, "empty.sim" has none, "folder" is one.
FILE_ERROR = 36
REFUSED_SESSION = [
    (["-new", "full.sim"], "Unable to create a new file full.sim.  The file already exists.", FILE_ERROR),
    (["-new", "full"], "Unable to create a new file full.sim.  The file already exists.", FILE_ERROR),
    (["none.sim"], "Cannot open file: none.sim (specify -new to create the file)\nServer working directory: '",
     FILE_ERROR),
    (["folder"], "Cannot open file: folder.  File is a directory.\n", FILE_ERROR),
]

NON_RECOVERABLE = 32
REFUSED_WORK = [
    (["-load"], "Simulation file could not be loaded: "),
    (["-load", "full.sim"], "Simulation file could not be loaded: "),
    (["-nothreads", "-proxy", "h", "-encoded-proxycmd", encoded("c")],
     "Proxy servers are not supported in non-threaded mode"),
]


class Refused(Case):
    def run_server(self, *words, launcher=(), **environment):
        return subprocess.run([*launcher, str(SERVER), *words], capture_output=True, text=True, cwd=self.room.work,
                              stdin=subprocess.DEVNULL, env=self.room.environment(**environment), timeout=20 * PATIENCE)

    def setUp(self):
        super().setUp()
        (self.room.work / "full.sim").write_text("content")
        (self.room.work / "empty.sim").touch()
        (self.room.work / "folder").mkdir()

    def test_wrong_words(self):
        rows = [(["-s", *words], text, status) for words, text, status in REFUSED_SERIAL] + REFUSED_START
        for words, text, status in rows:
            with self.subTest(words=words):
                answer = self.run_server(*words)
                self.assertEqual(answer.returncode, status, answer)
                self.assertIn(text, answer.stderr)
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
                self.assertEqual(answer.returncode, ERROR, answer)
                self.assertIn(f"Failed to initialize MPI wrapper: {module} {text}", answer.stderr)

    def test_session_files(self):
        for words, text, status in REFUSED_SESSION:
            with self.subTest(words=words):
                answer = self.run_server("-s", *words)
                self.assertEqual(answer.returncode, status, answer)
                self.assertIn("\nError: " + text, answer.stdout)
                self.assertIn("\nExit error: ", answer.stderr)
        self.assertEqual((self.room.work / "full.sim").read_text(), "content")
        self.nothing_left()

    def test_work_that_cannot_start(self):
        for words, text in REFUSED_WORK:
            with self.subTest(words=words):
                answer = self.run_server("-s", *words)
                self.assertEqual(answer.returncode, NON_RECOVERABLE, answer)
                self.assertRegex(answer.stderr, "\nExit error: .*" + re.escape(text))
        self.nothing_left()

    def test_in_a_job(self):
        """The same words under a launcher: each rank fails alike, or the master ends the job. Nothing hangs."""
        rows = [(["-cpubind", "fast"], "-cpubind argument must be", INVALID),
                (["-encoded-param", "a", "*"], "Invalid value of '-encoded-param': ", INVALID),
                (["-port", "x"], "\nInvalid server port number argument.\n", ERROR),
                (["-nonsense"], "\nUnrecognized argument '-nonsense'\n", INVALID),
                (["none.sim"], "\nExit error: ", FILE_ERROR),
                (["-module", "OrvexNowhere"], "DynamicLoader: couldn't load OrvexNowhere.", ERROR),
                (["-load"], "Simulation file could not be loaded: ", NON_RECOVERABLE)]
        for mpi in MPIS:
            for words, text, status in rows:
                with self.subTest(mpi=mpi, words=words):
                    answer = self.run_server("-mpi", DRIVERS[mpi], *words, launcher=[*LAUNCHERS[mpi], "3"])
                    self.assertEqual(answer.returncode, status, answer)
                    self.assertIn(text, answer.stderr)
                    if "-encoded-param" in words:
                        self.assertEqual(answer.stderr.count(text), 1, answer.stderr)
                    wait_until(lambda: not self.room.processes(), 5 * PATIENCE, "all ranks are gone")

    def test_questions(self):
        """Answered without a launcher, and once under one; the README shows options as --help does."""
        listed = {line.split("  ")[1] for line in self.run_server("--help").stdout.splitlines() if line.startswith("  -")}
        readme = pathlib.Path(__file__).parents[3] / "README.md"
        rows = re.findall(r"(?m)^\| (.*`--?[a-z].*`) \|", readme.read_text().partition("## Options")[2].partition("\n## ")[0])
        shown = set(re.findall(r"`(-[^`]*)`", " ".join(rows).replace("disable`", "WORD`")))
        self.assertGreater(len(shown), 20)
        self.assertLessEqual(shown, listed)
        for launcher in ([], *([*LAUNCHERS[mpi], "3"] for mpi in MPIS)):
            answer = self.run_server("-session", "--help", "--version", launcher=launcher)
            self.assertRegex(answer.stdout, r"\A\S+ \S+ \(.*/.*\)\n\Z")
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
    def session_name(self, job):
        return job.record()["name"]

    def test_session_choice(self):
        """The first plain word wins; a later -session overwrites it; the extension is found."""
        for name in ("a.sim", "b.sim", "ext.sim"):
            (self.room.work / name).touch()
        for words, expected in [
            (["-session", "a.sim", "b.sim"], "a.sim"),
            (["b.sim", "-session", "a.sim"], "a.sim"),
            (["b.sim", "a.sim"], "b.sim"),
            (["-encoded-session", encoded("a.sim")], "a.sim"),
            (["ext"], "ext.sim"),
            (["-new", "a.sim"], "a.sim"),
        ]:
            with self.subTest(words=words):
                job = self.ready(*words)
                self.assertEqual(os.path.basename(self.session_name(job)), expected)
                self.stop(job)

    def test_words_of_all_roles(self):
        """Options that the road only takes along: accepted together, and the server serves."""
        job = self.ready("-xnousage", "-time", "-deleteOnExit", "-cpubind", "bandwidth", "-cpubindverbose",
                         "-cpubindcontentiontest", "disable", "-iodebug", "2", "-pio", "-printpids", "-xnodeverrors",
                         "-xthreadbindoff", "-xthreadbindverbose", "-taskid", "0", "-rrthreads", "2", "-xmpidriver", "x",
                         "-xmpiversion", "y", "-rsh", "ssh", "-mpi", "intel", "-jobmanagerurl", "u://v", "-taskid", "7",
                         "-encoded-param", encoded("k"), encoded("v"), "-encoded-passtodesign", encoded("p"))
        self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        self.assertIn(f"Serial process {job.process.pid}\n", job.out())
        self.assertRegex(job.out(), r"\n\S.* \(.+/.+\)\n\n")
        self.stop(job)

    def test_floating_point_pair(self):
        job = self.ready("-fpe")
        self.assertIn("Enabling asynchronous floating point exceptions.", job.out())
        self.stop(job)

    def test_ports(self):
        port = free_port()
        with self.subTest("port"):
            job = self.ready("-port", port)
            with socket.create_connection(("127.0.0.1", port), timeout=5):
                pass
            self.assertEqual(job.record()["port"], port)
            second = self.start("-port", port, "-portrange", "1")
            self.assertEqual(second.wait(), NON_RECOVERABLE, second.told())
            self.assertIn(str(port), second.err())
            self.stop(job)
        with self.subTest("noconnect"):
            job = self.start("-noconnect", "-port", port)
            wait_until(lambda: job.out().endswith(")\n\n"), 10 * PATIENCE, job.told)
            with self.assertRaises(OSError):
                socket.create_connection(("127.0.0.1", port), timeout=1)
            job.process.terminate()
            self.assertEqual(job.wait(), 0, job.told())
            self.nothing_left()

    def test_loopback_only(self):
        """Without a client address nothing listens on the network."""
        job = self.ready()
        self.assertLessEqual(self.listening(job), {"0100007F", "00000000000000000000000001000000"})
        self.stop(job)

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
        self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        with socket.create_connection(("127.0.0.1", job.record()["port"]), 5, source_address=("127.0.0.2", 0)) as other:
            told = b"".join(iter(lambda: other.recv(4096), b"")).decode()
        self.assertIn("127.0.0.2 isn't the client 127.0.0.1", told + job.err() + job.out())
        self.stop(job)
        refused = self.start("-xclientaddr", "no.such.host.invalid")
        self.assertNotEqual(refused.wait(), 0, refused.told())
        self.assertIn("no.such.host.invalid", refused.err())

    def test_unlisted(self):
        """Who has the key still gets in."""
        job = self.ready("-loc")
        self.assertNotIn(str(job.process.pid), job.ctl("list-sessions").stdout)
        self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        self.stop(job)

    def test_floating_point_registers_left_alone(self):
        """A development version can be told so; a release version checks whatever it is told."""
        job = self.ready("-xdisable-fpe-register-checking", "-module", "OrvexTestModule")
        answer = job.ctl("TestDivideByZero", "ranks=[0]", check=False)
        if "WARNING: FPE register checking disabled." in job.out():
            self.assertIn("inf", answer.stdout)
        else:
            self.assertIn("A floating point error has occurred.", answer.stderr)
        self.stop(job)

    def test_temporary_folder(self):
        """A missing folder is made; a file in its place leaves the default one."""
        (self.room.work / "plain").write_text("x")
        for words, expected in [(["-tmpdir", str(self.room.work / "made")], 0), (["-tmpdir", "plain"], 0)]:
            job = self.ready(*words)
            self.stop(job, expected)
        self.assertTrue((self.room.work / "made").is_dir())
        self.assertEqual((self.room.work / "plain").read_text(), "x")

    def test_process_file_serial(self):
        (self.room.work / "pids").write_text("something older that is longer than the line which takes its place\n\n")
        job = self.ready("-procfile", "pids")
        self.assertRegex((self.room.work / "pids").read_text(), rf"^[^:\s]+:{job.process.pid}\n$")
        self.assertEqual(job.run("GetProcessFileName")["filename"], "pids")
        self.stop(job)
        job = self.ready("-procfile", "nowhere/pids")
        self.assertIn("Warning : could not open process file : nowhere/pids\nNo such file or directory (error 2)\n",
                      job.out())
        self.stop(job)

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
