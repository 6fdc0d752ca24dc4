"""Ranks that wait for ever, and ranks that can't end the job themselves: who tells the user, and what ends the job."""
import os
import pathlib
import signal
import socket
import subprocess
import time
import unittest

from harness import MPIS, PATIENCE, Case, main, wait_until
from cluster import Cluster, is_possible

MODULES = ("-module", "OrvexTestModule", "-module", "OrvexMistakesModule")
INTERNAL = ("TestFail", "kind=internal", "ranks=[1]", "wait=true")
ERROR_STATUS = 32


class Stuck(Case):
    def ready(self, *options, mpi=MPIS[0], **more):
        return super().ready(*MODULES, *options, mpi=mpi, **more)

    def told(self, client, text, limit):
        wait_until(lambda: text in " ".join(client.said().split()), limit * PATIENCE,
                   lambda: f"told \"{text}\" in {client.said()}")

    def standing(self, job, text, limit=10):
        """The answer of "where", when it holds the text."""
        def look():
            answer = job.ctl("where").stdout
            return answer if text in " ".join(answer.split()) else None
        return wait_until(look, limit * PATIENCE, lambda: f"{text} in {job.ctl('where').stdout}")

    def ends(self, job, limit, status=ERROR_STATUS):
        self.assertEqual(job.wait(limit * PATIENCE), status, job.told())
        self.nothing_left()

    def abort(self, job, client):
        job.ctl("abort")
        job.wait()
        client.wait(5 * PATIENCE)
        self.nothing_left()


class Mistakes(Stuck):
    """One rank of four makes a mistake, the others wait in an all-reduce."""

    def test_is_told_who_waits_for_whom(self):
        rows = [("receiveWithoutSend", "Rank 1 waits in recv for rank 2, which stands in allReduce (collective 1) and "
                                       "doesn't send."),
                ("skippedCollective" if MPIS[-1] == "mpich" else "receiveWithoutSend", "rank 1")]
        for (kind, text), mpi in zip(rows, (MPIS[0], MPIS[-1])):
            with self.subTest(kind=kind):
                job = self.ready(mpi=mpi, ranks=4)
                client = job.ctl_started("MakeMistake", f"kind={kind}")
                self.told(client, "The ranks wait for each other:", 20)
                self.told(client, text, 1)
                self.abort(job, client)

    def test_where_names_the_place(self):
        for kind, text in (("deadlock", "for rank 1, which sleeps in deadlock (OrvexMistakesModule.cpp:"),
                           ("endlessLoop", "for rank 1, which computes in loop (OrvexMistakesModule.cpp:")):
            with self.subTest(kind=kind):
                job = self.ready(ranks=4)
                client = job.ctl_started("MakeMistake", f"kind={kind}")
                answer = self.standing(job, text)
                self.assertIn("Ranks 0,2-3 wait in allReduce (collective 1)", answer)
                self.assertIn("  stack: MakeMistake::execute (OrvexMistakesModule.cpp:", answer)
                self.assertNotIn("Driver::", answer)
                self.abort(job, client)
        with self.subTest("serial"):
            job = self.ready(mpi=None)
            self.assertIn("No command runs", job.ctl("where").stdout)
            client = job.ctl_started("TestFail", "ranks=[1]", "busy=0", "seconds=1000")
            self.assertRegex(self.standing(job, "Rank 0 computes in compute (OrvexTestModule.cpp:"),
                             "^1 rank on 1 host\nRank 0 computes .*\n  command TestFail for .*\n  stack: compute")
            self.abort(job, client)

    def test_a_rank_that_fails_alone_ends_the_job(self):
        for kind, error in (("exceptionBeforeWait", "The time step is negative"), ("failedAllocation", "std::bad_alloc")):
            if kind == "failedAllocation" and PATIENCE > 1:
                continue  # the address sanitizer ends a process whose allocation fails
            with self.subTest(kind=kind):
                job = self.ready("-stuckafter", "7", ranks=4)
                client = job.ctl_started("MakeMistake", f"kind={kind}")
                self.ends(job, 20)
                client.wait(5 * PATIENCE)
                text = f"Rank 1 has left \"MakeMistake\" by an error, and the other ranks wait: {error}"
                self.assertIn(f"Error: {text}\n", job.err())
                self.assertRegex(client.said(), "\nNothing moves; the job ends in [1-4] s")
                self.assertIn(f"The job aborts: {text}\n", client.said())
                self.assertIn("stack: MakeMistake::execute (OrvexMistakesModule.cpp:", client.said())

    def test_a_rank_that_fails_alone_beside_a_window_ends_the_job(self):
        job = self.ready("-stuckafter", "7", ranks=4)
        client = job.ctl_started("MakeMistake", "kind=exceptionBeforeCounter")
        self.ends(job, 40)
        client.wait(5 * PATIENCE)
        self.assertIn("Rank 1 has left \"MakeMistake\" by an error, and the other ranks wait: its message waits for the "
                      "end of a shared-memory window\n", client.said())
        self.assertIn("waitForCounter", client.said())

    def test_a_rank_that_computes_is_no_suspect(self):
        job = self.ready("-stuckafter", "4", ranks=4)
        begin = time.monotonic()
        client = job.ctl_started("TestFail", "ranks=[0]", "wait=true", "busy=2", "seconds=10")
        self.ends(job, 30)
        self.assertGreater(time.monotonic() - begin, 13)
        client.wait(5 * PATIENCE)
        self.assertIn("A test failed on rank 0", client.said())

    def test_the_job_waits_for_a_stopped_rank_and_for_the_user(self):
        job = self.ready("-stuck", "wait", "-stuckafter", "3", ranks=4)
        job.members()[2].kill(signal.SIGSTOP)
        client = job.ctl_started("TestFail", "ranks=[1]", "wait=true")
        time.sleep(6 * PATIENCE)
        self.assertNotIn("The job waits", client.said())
        job.members()[2].kill(signal.SIGCONT)
        self.told(client, "The job waits (-stuck wait): look with \"where\", end it with \"abort\".", 15)
        self.assertIn("for rank 1, which has left the command by an error", " ".join(client.said().split()))
        stop = job.ctl_started("stop")
        self.told(stop, "\"where\" tells where its ranks stand, \"abort\" takes the job down.", 5)
        self.abort(job, client)


class Reporters(Stuck):
    """A rank that reports an error and then can't end the job, or can't report."""

    def test_the_master_ends_the_job_for_it(self):
        for number, status, limit in ((signal.SIGKILL, 137, 10), (signal.SIGSTOP, ERROR_STATUS, 25)):
            with self.subTest(number):
                job = self.ready(ranks=4)
                client = job.ctl_started(*INTERNAL)
                self.told(client, "The job aborts: Rank 1: A test failed on rank 1", 5)
                job.members()[1].kill(number)
                self.ends(job, limit, status)
                if number == signal.SIGSTOP:
                    self.assertIn("Rank 1 has reported this error and doesn't end the job; the master does.", job.err())

    @unittest.skipUnless("mpich" in MPIS and is_possible(), "needs MPICH and namespaces")
    def test_a_rank_without_a_port_makes_errors_fatal(self):
        """Rank 3 has a network of its own, in which nothing is up. Open MPI can't start so."""
        prefix = ("sh", "-c", 'if [ "$PMI_RANK" = 3 ]; then exec unshare --net "$@"; fi; exec "$@"', "sh")
        text = "Parallel error handler failed to start. All internal errors will be treated as fatal."
        for options, told in (((), text), (("-nothreads",), "All internal errors will be treated as fatal\n")):
            with self.subTest(options):
                job = self.ready(*options, mpi="mpich", ranks=4, prefix=prefix)
                job.printed(told)
                self.assertEqual("ParallelErrorHandler failed to bind to a port on MPI Rank : 3\n" in job.err(), not options)
                self.assertNotEqual(job.ctl("where", check=False).returncode, 0)
                client = job.ctl_started(*INTERNAL)
                self.ends(job, 12)
                self.assertIn("Error: A test failed on rank 1\n", job.err())
                client.wait(5 * PATIENCE)

    def test_segmentation_faults(self):
        for command, rank, ranks in (("Master", 0, 2), ("Asynchronous", 1, 7)):
            with self.subTest(command):
                job = self.ready(ranks=ranks)
                answer = job.ctl("InvokeSynchronousSegmentationError", check=False)
                self.assertEqual(answer.returncode, 1)
                self.assertRegex(answer.stderr, "Address +0x10\n")
                self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], ranks)
                client = job.ctl_started(f"Invoke{command}SegmentationError")
                self.ends(job, 15)
                client.wait(5 * PATIENCE)
                self.assertIn(f"The job aborts: Rank {rank}: Segmentation fault: address not mapped", client.said())
                self.assertRegex(job.err(), r"Error: Segmentation fault: address not mapped\n  Address 0x10\n(  .*\n)+"
                                            r"  .*writeToUnmappedAddress")


class Strangers(Stuck):
    def port(self, process, session):
        """The port of the channel: it listens on loopback, as the session does."""
        files = {os.readlink(f"/proc/{process.pid}/fd/{name}") for name in process.open_files()}
        lines = [line.split() for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]]
        ports = [int(words[1].partition(":")[2], 16) for words in lines
                 if words[3] == "0A" and words[1].startswith("0100007F") and f"socket:[{words[9]}]" in files]
        return next(port for port in ports if port != session)

    def test_have_no_way_into_the_channel(self):
        job = self.ready(ranks=4)
        port = self.port(job.members()[0], job.record()["port"])
        request = ("POST /RPC2 HTTP/1.1\r\nHost: x\r\n{}Content-Length: 82\r\n\r\n<methodCall><methodName>Abort</methodName>"
                   "<params></params></methodCall>              ")
        for data, answer in ((request.format(""), b"403"), (request.format("X-Orvex-Job: 0123\r\n"), b"403"),
                             ("\x01\x02garbage\r\n\r\n", b"400")):
            for _ in range(50):
                with socket.create_connection(("127.0.0.1", port), timeout=5 * PATIENCE) as stranger:
                    stranger.sendall(data.encode())
                    self.assertEqual(stranger.recv(12)[9:12], answer)
        self.assertLess(job.err().count("was refused"), 20)
        silent = [socket.socket() for _ in range(200)]
        for each in silent:
            each.setblocking(False)
            each.connect_ex(("127.0.0.1", port))
        self.assertEqual(job.ctl("TestFail", "kind=internal", check=False).returncode, 1)
        self.assertIn("No command runs", job.ctl("where").stdout)
        for each in silent:
            each.close()
        self.stop(job)


@unittest.skipUnless(is_possible() and "openmpi" in MPIS, "needs Open MPI, root, and a kernel that lets it make hosts")
class Hosts(Stuck):
    def test_where_over_hosts(self):
        """7 ranks on 3 hosts that don't see each other's processes: one loops, one is stopped."""
        with Cluster(3, own_processes=True) as cluster:
            job = self.ready(mpi="openmpi", cluster=cluster, slots=[3, 2, 2])
            members = job.members()
            members[6].kill(signal.SIGSTOP)  # no other rank hears of a command through it
            client = job.ctl_started("MakeMistake", "kind=endlessLoop", "rank=4")
            self.standing(job, "Ranks 0-3,5 wait in allReduce (collective 1) for rank 6, which is stopped, and rank 4, "
                               "which computes in loop (OrvexMistakesModule.cpp:", 20)
            tree = job.run("where")
            self.assertEqual([(group["ranks"], group["state"], group["hosts"]) for group in tree["groups"]],
                             [("0-3,5", "waits", ["node0", "node1", "node2"]), ("4", "computes", ["node1"]),
                              ("6", "stopped", ["node2"])])
            self.assertIn("loop", job.ctl("where", "--rank", "4").stdout)
            members[5].kill()  # the launcher ends the job
            self.assertNotEqual(job.wait(20 * PATIENCE), 0)
            client.wait(5 * PATIENCE)
            self.assertRegex(client.said(), "The job aborts: (Rank 5 has ended without a word|mpirun.* on another host)")

    def test_a_cut_network_ends_the_job(self):
        """On the side of the master at once, on the other side after a minute. The launcher itself hangs."""
        with Cluster(2, own_processes=True) as cluster:
            job = self.ready("-stuckafter", "4", mpi="openmpi", cluster=cluster, slots=[2, 1])
            members = job.members()
            client = job.ctl_started("MakeMistake", "kind=receiveWithoutSend", "rank=2")
            self.standing(job, "Rank 2 waits")
            subprocess.run(cluster.on(1, "ip", "link", "set", "eth0", "down"), check=True)
            wait_until(lambda: not members[0].alive() and not members[1].alive(), 40 * PATIENCE, client.said)
            client.wait(5 * PATIENCE)
            self.assertIn("Rank 2 is lost, and the other ranks wait: its host node1 can't be reached\n", client.said())
            wait_until(lambda: not members[2].alive(), 80 * PATIENCE, job.told)
            self.room.end_all()


if __name__ == "__main__":
    main()
