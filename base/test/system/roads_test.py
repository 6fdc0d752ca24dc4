"""The road of a command: client, server, all ranks and back; for serial servers and jobs of several sizes."""
import contextlib
import json
import os
import pathlib
import pty
import select
import signal
import socket
import subprocess
import termios

from harness import CLIENT, MPIS, PATIENCE, RECORDS, Case, main, wait_until


class Road(Case):
    def test_sizes(self):
        """More ranks than cores is normal; one rank and odd counts too."""
        for mpi in MPIS:
            library = {"openmpi": "Open MPI", "mpich": "MPICH"}[mpi]
            for ranks, options, version in (
                    (1, ("-xmpidriver", "Somebody's MPI", "-xmpiversion", "9.9"), "^Somebody's MPI 9.9$"),
                    (3, ("-nothreads",), rf"^{library}.*\d"), (7, (), rf"^{library}.*\d")):
                with self.subTest(mpi=mpi, ranks=ranks):
                    job = self.ready(*options, mpi=mpi, ranks=ranks)
                    self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], ranks)
                    hosts = job.run("GetHosts")
                    self.assertEqual(hosts["Number Processes"], ranks)
                    self.assertEqual([key for key in hosts if key.startswith("Rank")], [f"Rank[{i}]" for i in range(ranks)])
                    self.assertRegex(job.run("GetMpiVersion")["MpiVersion"], version)
                    self.assertEqual((sorted(job.members()), job.record()["ranks"]), (list(range(ranks)), ranks))
                    fatal = job.out().count("All internal errors will be treated as fatal")
                    self.assertEqual(fatal, ranks if "-nothreads" in options else 0)
                    self.stop(job)

    def test_closed_descriptors(self):
        """No socket and no file becomes a standard stream."""
        for mpi, ranks in ((None, 1), *((mpi, 3) for mpi in MPIS)):
            with self.subTest(mpi=mpi):
                job = self.ready(mpi=mpi, ranks=ranks, prefix=("sh", "-c", 'exec "$@" 0<&- 1>&- 2>&-', "closed"))
                for rank, process in job.members().items():
                    streams = [os.readlink(f"/proc/{process.pid}/fd/{number}") for number in range(3)]
                    self.assertEqual(streams, ["/dev/null"] * 3, f"rank {rank}")
                self.stop(job)

    def test_serial(self):
        for options in (("-nothreads",), ("-collab", "-cout"), ("-deleteOnExit",)):
            with self.subTest(options=options):
                job = self.ready("-module", "OrvexTestModule", *options)
                self.assertEqual("line 0" in job.ctl("TestPrint").stdout, "-cout" not in options)
                self.assertIn("line 0", job.out())
                self.stop(job)


class Failing(Case):
    """An error on some ranks is one error for the client; the job goes on."""

    def test_errors(self):
        page = pathlib.Path(__file__).resolve().parents[3] / "docs/PROTOCOL.md"
        errors = page.read_text().partition("## Errors")[2].partition("## ")[0]
        for mpi in MPIS:
            job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=3)
            for words, code, text in ((("ExitCommandLoop",), -32601, 'Unknown command "ExitCommandLoop"'),
                                      (("TestFail", "knd=null"), -32602, 'did you mean "kind"'),
                                      (("ListDir",), -32602, 'needs the argument "path"'),
                                      (("TestFail", "ranks=[2]", "kind=null"), -32000, "without a message"),
                                      (("TestFail", "ranks=[2]", "kind=empty"), -32000, "InputError without a message"),
                                      (("TestFail", "ranks=[1,2]"), -32000, "on rank 1"),
                                      (("TestCrash",), -32000, "Segmentation fault")):
                with self.subTest(mpi=mpi, words=words):
                    error = json.loads(job.ctl("--json", *words, check=False).stdout)["error"]
                    self.assertEqual(error["code"], code)
                    self.assertIn(text, error["message"])
                    self.assertIn(str(code), errors)
                    self.assertEqual([key for key in error["data"] if f"`{key}`" not in errors], [])
            self.assertNotIn("ExitCommandLoop", job.ctl("list-commands").stdout)
            self.assertEqual(job.run("TestEcho", "Error=0.5", "Message=fine"),
                             {"Command": "TestEcho", "Error": 0.5, "Message": "fine"})
            self.stop(job)
            self.assertIn("Exit of rank 0\n", job.err())


class Terminal(Case):
    """orvexctl at a terminal of its own."""

    def open(self, *words, output=None):
        """Starts orvexctl, with its standard output in the file `output`."""
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            if output:
                os.dup2(os.open(output, os.O_WRONLY | os.O_CREAT), 1)
            command = self.job._client(words)
            os.execve(command[0], command, self.room.environment(TERM="xterm"))
        self.seen = ""
        self.addCleanup(os.close, self.terminal)

    def type(self, text):
        os.write(self.terminal, text.encode())

    def expect(self, part):
        """Reads until `part` appears, and gives what came before it."""
        def found():
            if part not in self.seen and select.select([self.terminal], [], [], 0.1)[0]:
                with contextlib.suppress(OSError):  # the other end is closed
                    self.seen += os.read(self.terminal, 65536).decode(errors="replace")
            return part in self.seen

        wait_until(found, 20 * PATIENCE, lambda: f"{part!r} in {self.seen!r}")
        before, _, self.seen = self.seen.partition(part)
        return before

    def prompt(self):
        """Until orvexctl reads keys: the prompt is written a moment before."""
        self.expect("orvex> ")
        wait_until(lambda: not termios.tcgetattr(self.terminal)[3] & termios.ISIG, 5 * PATIENCE, "keys are read")

    def exit_value(self):
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])

    SOLVE = ("SolveHeatConduction", "nx=2000", "ny=2000", "reportInterval=0", "tolerance=1e-14")

    def test_terminal(self):
        self.job = self.ready("-collab", "-module", "OrvexParallelSandbox", "-module", "OrvexTestModule", mpi=MPIS[-1],
                              ranks=2)
        for look in (self.look_at_prompt, self.look_at_progress, self.look_at_second_interrupt, self.look_at_moved_server):
            with self.subTest(look.__doc__):
                look()
        self.stop(self.job)

    def look_at_prompt(self):
        """Ctrl-C clears the line and cancels a command; the history survives the end of the client."""
        mark = self.room.mark
        self.open()
        self.prompt()
        self.type("Delete\t")
        self.expect("DeleteFile  DeleteScene\r\n")
        self.type(f"\x15abort reason={mark}\x03")
        self.expect("^C")
        self.prompt()
        self.type(f"GetFileExists path={mark}\n")
        self.expect("false")
        self.prompt()
        self.type(" ".join(self.SOLVE) + "\n")
        self.expect("% started")
        self.type("\x03")
        self.expect("was cancelled")
        self.prompt()
        os.kill(self.pid, signal.SIGKILL)
        self.exit_value()
        history = (RECORDS[0].parent / "history").read_text()
        self.assertIn(f"GetFileExists\\040path={mark}", history)
        self.assertNotIn(f"abort\\040reason={mark}", history)

    def look_at_progress(self):
        """Progress is on the terminal and not in the file; a cancelled command is a failed one."""
        output = self.room.work / "answer"
        self.open(*self.SOLVE, output=output)
        self.expect("% started")
        self.type("\x03")
        self.expect("was cancelled")
        self.assertEqual((self.exit_value(), output.read_text()), (1, ""))

    def look_at_second_interrupt(self):
        """The client shows the console at once; it ends, and the command goes on."""
        self.open("TestPrint", "lines=2", "seconds=3")
        self.expect("line 0")
        self.type("\x03")
        self.expect("Ctrl-C again")
        self.type("\x03")
        self.expect("TestPrint goes on")
        running = json.loads(self.job.ctl("--json", "status").stdout).get("running", {}).get("command")
        self.assertEqual((self.exit_value(), running), (130, "TestPrint"))

    def look_at_moved_server(self):
        """A connection that is refused is tried once more, with what the record says by then."""
        path = pathlib.Path(self.room.top / "moving.session")
        record = self.job.record()
        with contextlib.closing(socket.create_server(("127.0.0.1", 0))) as old:
            path.touch(mode=0o600)
            path.write_text(json.dumps({**record, "port": old.getsockname()[1]}))
            client = subprocess.Popen([CLIENT, "--key-file", path, "GetDir"], stdout=subprocess.PIPE)
            old.settimeout(20 * PATIENCE)
            connection, _ = old.accept()
            path.write_text(json.dumps(record))
            connection.close()
        self.assertIn(b"cwd", client.communicate(timeout=20 * PATIENCE)[0])


if __name__ == "__main__":
    main()
