"""The road of a command: client, server, all ranks and back; for serial servers and jobs of several sizes."""
import json
import os
import pathlib
import subprocess
import time

from harness import BUILD, DRIVERS, MPIS, PATIENCE, Case, main, wait_until


class Road(Case):
    def test_sizes(self):
        """More ranks than cores is normal; one rank and odd counts too."""
        for mpi in MPIS:
            for ranks in (1, 2, 3, 4, 7):
                with self.subTest(mpi=mpi, ranks=ranks):
                    job = self.ready(mpi=mpi, ranks=ranks)
                    self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], ranks)
                    hosts = job.run("GetHosts")
                    self.assertEqual(hosts["Number Processes"], ranks)
                    self.assertEqual([key for key in hosts if key.startswith("Rank[")],
                                     [f"Rank[{rank}]" for rank in range(ranks)])
                    times = job.run("GetTimes")
                    self.assertEqual((len(times["CpuTimes"]), len(times["WallTimes"])), (ranks, ranks))
                    self.assertEqual(sorted(job.members()), list(range(ranks)))
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
        for options in ((), ("-nothreads",), ("-collab",), ("-cout",), ("-deleteOnExit",)):
            with self.subTest(options=options):
                job = self.ready(*options)
                self.assertEqual(job.run("GetMpiVersion"),
                                 {"Command": "GetMpiVersion", "Vendor": "", "Version": "", "MpiVersion": ""})
                self.assertEqual(job.run("GetHosts")["Number Processes"], 1)
                self.stop(job)

    def test_not_threaded_job(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready("-nothreads", mpi=mpi, ranks=3)
                self.assertEqual(job.run("GetHosts")["Number Processes"], 3)  # collective
                self.stop(job)

    def test_versions(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready(mpi=mpi, ranks=2)
                answer = job.run("GetMpiVersion")
                self.assertRegex(answer["Vendor"], {"openmpi": "Open MPI", "mpich": "MPICH"}[mpi])
                self.assertRegex(answer["MpiVersion"], r"\d")
                self.stop(job)
                job = self.ready("-xmpidriver", "Somebody's MPI", "-xmpiversion", "9.9", mpi=mpi, ranks=2)
                self.assertEqual(job.run("GetMpiVersion")["MpiVersion"], "Somebody's MPI 9.9")
                self.stop(job)


class Failing(Case):
    """An error on some ranks is one error for the client; the job goes on."""

    def test_ranks(self):
        page = pathlib.Path(__file__).resolve().parents[3] / "docs/PROTOCOL.md"
        errors = page.read_text().partition("## Errors")[2].partition("## ")[0]
        for mpi in MPIS:
            job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=7)
            for ranks, winner, told in (([2, 5], 2, "2,5"), ([0, 3], 0, "0,3"), ([6], 6, "6"), (range(7), 0, "0-6")):
                with self.subTest(mpi=mpi, ranks=ranks):
                    answer = job.ctl("--json", "TestFail", "ranks=" + json.dumps([*ranks]), check=False)
                    self.assertNotEqual(answer.returncode, 0)
                    text = answer.stdout + answer.stderr
                    self.assertIn(f"rank {winner}", text.lower())
                    self.assertEqual(json.loads(text)["error"]["data"]["Ranks"], told)
                    if winner:
                        self.assertRegex(text, rf'"Rank": ?{winner}\b')
                    else:
                        self.assertNotIn('"Rank"', text)
                    self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], 7)
            for words, code, text in ((("ExitCommandLoop",), -32601, 'Unknown command "ExitCommandLoop"'),
                                      (("TestFail", "knd=null"), -32602, 'did you mean "kind"'),
                                      (("ListDir",), -32602, 'needs the argument "path"'),
                                      (("TestFail", "ranks=[6]", "kind=null"), -32000, "without a message"),
                                      (("TestFail", "ranks=[6]", "kind=empty"), -32000, "InputError without a message"),
                                      (("TestFail", "ranks=[5,6]", "kind=internal"), -32000, "on rank 5")):
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


class People(Case):
    """What a person at a terminal sees of orvexctl."""

    def test_error_for_people(self):
        job = self.ready("-module", "OrvexTestModule", mpi=MPIS[0], ranks=3)
        answer = job.ctl("TestFail", "ranks=[2]", check=False)
        self.assertNotEqual(answer.returncode, 0)
        self.assertIn("rank 2", answer.stderr.lower())
        answer = job.ctl("GetHosst", check=False)
        self.assertNotEqual(answer.returncode, 0)
        self.assertIn("GetHosts", answer.stderr)
        self.stop(job)

    def test_console_reaches_the_client(self):
        """While the command runs, not at its end; and not with -cout."""
        for options, expected in (((), True), (("-cout",), False)):
            with self.subTest(options=options):
                job = self.ready("-collab", "-module", "OrvexTestModule", *options)
                began = time.monotonic()
                client = job.ctl_started("TestPrint", "lines=3", "seconds=2")
                if expected:
                    wait_until(lambda: "line 0" in client.said(), 1.5 * PATIENCE, "the first line")
                    self.assertLess(time.monotonic() - began, 2 * PATIENCE)
                self.assertEqual(client.wait(timeout=10 * PATIENCE), 0)
                self.assertEqual("line 2" in client.said(), expected)
                self.assertIn("line 2", job.out())
                self.stop(job)

    def test_client_goes_away(self):
        """The command goes on; one that asks sees which runs, since when and for whom."""
        job = self.ready("-collab", "-module", "OrvexTestModule", mpi=MPIS[-1], ranks=2)
        client = job.ctl_started("TestWait", "seconds=3")
        running = wait_until(lambda: (s := job.ctl("--json", "status").stdout) if "TestWait" in (
            s := job.ctl("--json", "status").stdout) else None, 5 * PATIENCE, "the command runs")
        self.assertRegex(running, r"\d{2}:\d{2}:\d{2}|since")
        client.kill()
        client.wait()
        self.assertIn("TestWait", job.ctl("--json", "status").stdout)
        self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], 2)
        self.stop(job)

    def test_one_client_at_a_time(self):
        """In the normal mode a second client is told at once who is connected."""
        job = self.ready("-module", "OrvexTestModule")
        client = job.ctl_started("TestWait", "seconds=2")
        wait_until(lambda: "TestWait" in job.ctl("status").stdout, 5 * PATIENCE, "the command runs")
        answer = job.ctl("GetUserName", check=False)
        self.assertNotEqual(answer.returncode, 0)
        self.assertRegex(answer.stderr, "(?i)client")
        self.assertEqual(client.wait(timeout=10 * PATIENCE), 0)
        self.stop(job)

    def test_script(self):
        """Commands from a file or a pipe, one a line; the first failure ends it with its exit value."""
        job = self.ready("-collab")
        good = self.room.work / "good.txt"
        good.write_text("# two looks\nGetNumberOfWorkers\n\nGetUserName\n")
        self.assertEqual(job.ctl("--json", "--file", "good.txt").stdout.count("{"), 2)
        (self.room.work / "bad.txt").write_text("GetNowhere\nGetUserName\n")
        self.assertNotEqual(job.ctl("--file", "bad.txt", check=False).returncode, 0)
        self.stop(job)


if __name__ == "__main__":
    main()
