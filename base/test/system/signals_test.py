"""How a job ends when somebody ends it from outside: in order when asked, and within seconds when killed."""
import os
import re
import signal
import time

from harness import MPIS, PATIENCE, Case, Process, main, wait_until

GONE_LIMIT = 15 * PATIENCE
signal.signal(signal.SIGHUP, signal.SIG_DFL)  # who was started to ignore it goes on doing so


class Asked(Case):
    """SIGTERM, Ctrl-C and the end of a terminal ask the server to stop in order."""

    def test_serial(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            for options in ((), ("-nothreads",), ("-noconnect",)):
                with self.subTest(signal=number.name, options=options):
                    job = self.ready(*options)
                    job.process.send_signal(number)
                    self.assertEqual(job.wait(), 0, job.told())
                    self.nothing_left()

    def test_job(self):
        for mpi in MPIS:
            for number in (signal.SIGTERM, signal.SIGINT):
                with self.subTest(mpi=mpi, signal=number.name):
                    job = self.ready(mpi=mpi, ranks=3)
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
                wait_until(lambda: not self.room.processes(), GONE_LIMIT, lambda: str(self.room.leftovers()))

    def test_launcher(self):
        """Open MPI's launcher kills, whatever happens: its signal is told as the end of the job."""
        if "openmpi" not in MPIS:
            self.skipTest("needs Open MPI")
        job = self.ready("-module", "OrvexTestModule", mpi="openmpi", ranks=3)
        client = job.ctl_started("TestWait", "seconds=60")
        wait_until(lambda: "TestWait" in job.ctl("status").stdout, 5 * PATIENCE, "the command runs")
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
                job = self.ready("-module", "OrvexTestModule", "-stoplimit", "2", mpi=mpi, ranks=3 if mpi else 1)
                if mpi:
                    job.members()[1].kill(signal.SIGSTOP)
                else:
                    job.run("TestCrash", "kind=linger")
                job.ctl("stop")
                self.assertNotEqual(job.wait(), 0)
                self.assertIn(f" ends: its end came to no end: {step}\n", job.err())
                wait_until(lambda: not self.room.processes(), GONE_LIMIT, lambda: str(self.room.leftovers()))
                self.assertEqual(self.room.leftovers(), [])

    def test_while_a_command_runs(self):
        """The command at work finishes and is answered; then the server stops."""
        job = self.ready("-module", "OrvexTestModule", mpi=MPIS[0], ranks=2)
        waiting = job.ctl_started("TestWait", "seconds=1.5")
        wait_until(lambda: "TestWait" in job.ctl("status").stdout, 5 * PATIENCE, "the command runs")
        job.members()[0].kill(signal.SIGTERM)
        self.assertEqual(waiting.wait(timeout=GONE_LIMIT), 0)
        self.assertEqual(job.wait(), 0, job.told())
        self.nothing_left()


    def test_twice(self):
        """Who asks again after a moment doesn't want to wait for the command at work."""
        for mpi, ranks in ((None, 1), *((mpi, 3) for mpi in MPIS)):
            with self.subTest(mpi=mpi):
                job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=ranks)
                job.ctl_started("TestWait", "seconds=60")
                wait_until(lambda: "TestWait" in job.ctl("status").stdout, 5 * PATIENCE, "the command runs")
                master = job.members()[0]
                for _ in range(2):
                    master.kill(signal.SIGTERM)
                    time.sleep(2.5)
                self.assertNotEqual(job.wait(), 0, job.told())
                self.assertIn("SIGTERM again: the process ends at once", job.err())
                wait_until(lambda: not self.room.servers(), GONE_LIMIT, lambda: str(self.room.leftovers()))


class Dying(Case):
    """Whoever waits for a job that dies is told why."""
    # How a rank dies, and what the standard error stream and the client of the job show then.
    ENDS = [("thread", "lost in a thread"), ("terminate", "std::terminate was called without an error"),
            ("abort", "abort() was called"), ("leave", "exit(0) was called"), ("quick", "quick_exit() was called"),
            ("overflow", "Stack overflow"), ("kill", "has ended without a word"),
            # Sanitizers find these by themselves.
            *([("deepThread", "Stack overflow"), ("heap", "abort() was called")] if PATIENCE == 1 else [])]

    def test_reasons(self):
        for mpi, ranks in ((None, 1), *((mpi, 3) for mpi in MPIS)):
            for kind, reason in self.ENDS:
                # Nobody speaks for a serial server that is killed; MPICH's launcher kills all ranks at once then.
                if kind == "kill" and mpi != "openmpi":
                    continue
                for rank in range(0 if kind != "kill" else 1, min(ranks, 2)):
                    with self.subTest(mpi=mpi, kind=kind, rank=rank):
                        job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=ranks)
                        client = job.ctl_started("TestCrash", f"kind={kind}", f"ranks=[{rank}]")
                        self.assertNotEqual(job.wait(), 0)
                        client.wait(timeout=GONE_LIMIT)
                        self.assertRegex(client.said(), "The job aborts: .*" + re.escape(reason))
                        self.assertNotIn("stops", client.said())
                        who = f"Rank {rank}" if mpi else "The server"
                        self.assertRegex(job.err(), rf"\n{who} .*" + re.escape(reason))
                        wait_until(lambda: not self.room.processes(), GONE_LIMIT, lambda: str(self.room.leftovers()))


class Killed(Case):
    """kill -9 somewhere: the whole job is gone within seconds, no rank spins as an orphan."""

    def victims(self, job):
        result = {"worker": lambda: job.members()[1], "master": lambda: job.members()[0],
                  "launcher": lambda: Process(job.process.pid)}
        if job.mpi == "mpich":
            result["proxy"] = lambda: Process(job.members()[0].parent())
        return result

    def check_gone(self, job, what, victim):
        with self.subTest(mpi=job.mpi, victim=what):
            self.assertTrue(victim.alive())
            victim.kill()
            began = time.monotonic()
            wait_until(lambda: not self.room.servers(), GONE_LIMIT,
                       lambda: f"the ranks are gone: {self.room.leftovers()} {job.told()}")
            # The launcher notices its ranks' end by itself.
            self.assertNotEqual(job.wait(), 0)
            wait_until(lambda: not self.room.processes(), GONE_LIMIT, lambda: str(self.room.leftovers()))
            return time.monotonic() - began

    def test_idle(self):
        for mpi in MPIS:
            for what in ("worker", "master", "launcher", *(["proxy"] if mpi == "mpich" else [])):
                job = self.ready(mpi=mpi, ranks=3)
                self.check_gone(job, what, self.victims(job)[what]())

    def test_busy(self):
        """The same while all ranks are inside a command, away from the loop that listens."""
        for mpi in MPIS:
            for what in ("worker", "launcher"):
                job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=3)
                job.ctl_started("TestWait", "seconds=60")
                wait_until(lambda: "TestWait" in job.ctl("status").stdout, 5 * PATIENCE, "the command runs")
                self.check_gone(job, what, self.victims(job)[what]())


if __name__ == "__main__":
    main()
