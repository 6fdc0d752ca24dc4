"""A job that somebody ends from outside: it ends in order when asked, and within seconds when killed."""
import os
import re
import signal
import time

from harness import MPIS, PATIENCE, Case, Process, main, wait_until

GONE_LIMIT = 15 * PATIENCE
signal.signal(signal.SIGHUP, signal.SIG_DFL)  # who was started to ignore it goes on doing so


class Ends(Case):
    def all_gone(self):
        wait_until(lambda: not self.room.processes(), GONE_LIMIT, lambda: str(self.room.leftovers()))

    def at_work(self, seconds, **more):
        """A job whose ranks are inside a command, and the client that waits for it."""
        job = self.ready("-module", "OrvexTestModule", **more)
        client = job.ctl_started("TestWait", f"seconds={seconds}")
        wait_until(lambda: "TestWait" in job.ctl("status").stdout, 5 * PATIENCE, "the command runs")
        return job, client


class Asked(Ends):
    """SIGTERM, Ctrl-C and the end of a terminal ask the server to stop in order."""

    def test_in_order(self):
        for mpi, number, options in ((None, signal.SIGTERM, ()), (None, signal.SIGINT, ("-nothreads",)),
                                     (None, signal.SIGHUP, ("-noconnect",)),
                                     *((mpi, number, ()) for mpi in MPIS for number in (signal.SIGTERM, signal.SIGINT))):
            with self.subTest(mpi=mpi, signal=number.name, options=options):
                job = self.ready(*options, mpi=mpi, ranks=3)
                job.members()[0].kill(number)
                self.assertEqual(job.wait(), 0, job.told())
                self.nothing_left()

    def test_terminal(self):
        """Ctrl-C at the terminal reaches the launcher and its ranks at once."""
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready(mpi=mpi, ranks=2)
                os.killpg(job.process.pid, signal.SIGINT)
                job.wait()
                self.all_gone()

    def test_launcher(self):
        """Open MPI's launcher kills, whatever happens: its signal is told as the end of the job."""
        if "openmpi" not in MPIS:
            self.skipTest("needs Open MPI")
        job, client = self.at_work(60, mpi="openmpi", ranks=3)
        job.process.terminate()
        self.assertNotEqual(job.wait(), 0)
        client.wait(timeout=GONE_LIMIT)
        self.assertRegex(client.said(), r"The job aborts: mpirun.* ends the job, by SIGTERM")
        self.assertNotIn("stops", client.said() + job.err())
        self.nothing_left()

    def test_endless_end(self):
        """A rank that hangs, or an exit function, doesn't keep a server that stops."""
        for mpi, step in ((None, "the exit functions"), *((mpi, "the release of the workers") for mpi in MPIS)):
            with self.subTest(mpi=mpi):
                job = self.ready("-module", "OrvexTestModule", "-stoplimit", "1", mpi=mpi, ranks=3 if mpi else 1)
                if mpi:
                    job.members()[1].kill(signal.SIGSTOP)
                else:
                    job.run("TestCrash", "kind=linger")
                job.ctl("stop")
                self.assertNotEqual(job.wait(), 0)
                self.assertIn(f" ends: its end came to no end: {step}\n", job.err())
                self.all_gone()
                self.assertEqual(self.room.leftovers(), [])

    def test_abort(self):
        """A client takes the job down in the middle of a command."""
        job, waiting = self.at_work(60, mpi=MPIS[-1], ranks=2)
        job.ctl("abort", "reason=it hangs", check=False)
        self.assertNotEqual(job.wait(), 0)
        self.assertNotEqual(waiting.wait(timeout=GONE_LIMIT), 0)
        self.assertRegex(waiting.said(), "The job aborts: .* demanded the abort: it hangs")
        self.nothing_left()

    def test_while_a_command_runs(self):
        """The command at work finishes and is answered; then the server stops."""
        job, waiting = self.at_work(1.5, mpi=MPIS[0], ranks=2)
        job.members()[0].kill(signal.SIGTERM)
        self.assertEqual(waiting.wait(timeout=GONE_LIMIT), 0)
        self.assertEqual(job.wait(), 0, job.told())
        self.nothing_left()

    def test_twice(self):
        """A second signal after a moment ends the job at once, in the middle of a command."""
        for mpi, ranks in ((None, 1), *((mpi, 3) for mpi in MPIS)):
            with self.subTest(mpi=mpi):
                job, _ = self.at_work(60, mpi=mpi, ranks=ranks)
                master = job.members()[0]
                master.kill(signal.SIGTERM)
                time.sleep(2.2)
                master.kill(signal.SIGTERM)
                self.assertNotEqual(job.wait(), 0, job.told())
                self.assertIn("SIGTERM again: the process ends at once", job.err())
                wait_until(lambda: not self.room.servers(), GONE_LIMIT, lambda: str(self.room.leftovers()))


class Dying(Ends):
    """A client that waits for a job that dies is told why."""
    # Ways of dying, and the reason that the standard error stream and the client of the job show then.
    REASONS = {"thread": "lost in a thread", "terminate": "std::terminate was called without an error",
               "abort": "abort() was called", "leave": "exit(0) was called", "quick": "quick_exit() was called",
               "overflow": "Stack overflow", "kill": "has ended without a word", "deepThread": "Stack overflow",
               "heap": "abort() was called"}
    # Each way in a serial server; a worker and a master by a few. MPICH's launcher kills all ranks at once when one is
    # killed.
    ENDS = [*((None, 0, kind) for kind in REASONS if kind != "kill"),
            *((mpi, rank, kind) for mpi in MPIS for rank, kind in ((0, "thread"), (0, "leave"), (1, "overflow"), (1, "quick"),
                                                                   *([(1, "kill")] if mpi == "openmpi" else [])))]
    # Sanitizers find these by themselves.
    ENDS = [row for row in ENDS if PATIENCE == 1 or row[2] not in ("deepThread", "heap", "overflow")]

    def test_reasons(self):
        for mpi, rank, kind in self.ENDS:
            with self.subTest(mpi=mpi, kind=kind, rank=rank):
                job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=3)
                client = job.ctl_started("TestCrash", f"kind={kind}", f"ranks=[{rank}]")
                value = job.wait()
                client.wait(timeout=GONE_LIMIT)
                reason = re.escape(self.REASONS[kind])
                if mpi:
                    self.assertNotEqual(value, 0)
                else:
                    self.assertEqual(value, -signal.SIGABRT if reason.startswith("abort") else 1)
                self.assertRegex(client.said(), "The job aborts: .*" + reason)
                self.assertNotIn("stops", client.said())
                who = f"Rank {rank}" if mpi else "The server"
                self.assertRegex(job.err(), rf"\n{who} .*" + reason)
                self.all_gone()


class Killed(Ends):
    """kill -9 somewhere: the whole job is gone within seconds, no rank spins as an orphan."""

    def test_killed(self):
        """Idle, and while all ranks are inside a command, away from the loop that listens."""
        for mpi in MPIS:
            for what, busy in (("worker", False), ("master", False), ("launcher", False), ("worker", True), ("launcher", True),
                               *([("proxy", False)] if mpi == "mpich" else [])):
                with self.subTest(mpi=mpi, victim=what, busy=busy):
                    job = self.at_work(60, mpi=mpi, ranks=3)[0] if busy else self.ready(mpi=mpi, ranks=3)
                    master, worker = job.members()[0], job.members()[1]
                    Process({"worker": worker.pid, "master": master.pid, "launcher": job.process.pid,
                             "proxy": master.parent()}[what]).kill()
                    wait_until(lambda: not self.room.servers(), GONE_LIMIT,
                               lambda: f"the ranks are gone: {self.room.leftovers()} {job.told()}")
                    # The launcher notices its ranks' end by itself.
                    self.assertNotEqual(job.wait(), 0)
                    self.all_gone()


if __name__ == "__main__":
    main()
