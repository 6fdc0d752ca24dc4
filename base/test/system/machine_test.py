"""The machine's commands and modules as a client sees them: consoles of ranks, streams, hosts, the sandbox, scenes."""
import json
import math
import os
import pathlib
import re

from client import Client
from harness import MPIS, PATIENCE, Case, main, wait_until


class Consoles(Case):
    """The output of each rank, and its destination."""

    def lines(self, job):
        return [line for line in job.out().splitlines() if re.search(r"line \d", line)]

    def said(self, job, lines):
        wait_until(lambda: sorted(self.lines(job)) == sorted(lines), 5 * PATIENCE,
                   lambda: f"{lines}, but {self.lines(job)}")

    def test_workers_speak_when_asked(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready("-module", "OrvexTestModule", "-printpids", mpi=mpi, ranks=3)
                pids = {rank: process.pid for rank, process in job.members().items()}
                host = job.run("GetHosts")["Rank[0]"]
                job.printed(re.escape(f"Host 0 -- {host} -- Ranks 0-2\nProcess rank 0 {host} {pids[0]}\n"
                                      "Total number of processes : 3\n\n") +
                            "".join(f"Host ID 0 Rank {rank} on {host} with process ID {pids[rank]}\n" for rank in range(3)))
                job.run("PrintProcessSummary")
                for rank in range(3):
                    job.printed(f"Process rank {rank} {host} {pids[rank]}\n")
                job.run("TestPrint")
                expected = ["line 0"]
                self.said(job, expected)
                job.run("EnableSlaveCout", "enableflag=true")
                job.run("TestPrint", "lines=2")
                expected += ["line 0", "line 1"] + [f"Proc[{rank}] : line {n}" for rank in (1, 2) for n in (0, 1)]
                self.said(job, expected)
                job.run("EnableSlaveCout", "enableflag=false")
                job.run("TestPrint", "ranks=[1,2]")
                log = self.room.work / "partition1.log"
                os.mkfifo(log)
                answer = job.ctl("EnableProcessLogFile", "enableFlag=true", check=False)
                self.assertIn(f"Rank 1 could not open its log file {log}: Invalid argument", answer.stderr)
                log.unlink()
                job.run("EnableProcessLogFile", "enableFlag=true")
                job.run("TestPrint", "ranks=[1]")
                job.run("EnableProcessLogFile", "enableFlag=false")
                job.run("TestPrint", "ranks=[1]", "text=late line")
                self.assertEqual(log.read_text(), "line 0\n")
                log.unlink()
                job.run("TestPrint", "text=last line")
                self.said(job, expected + ["last line 0"])
                self.stop(job)

    def test_streams_move_to_files(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=2)
                pids = {rank: process.pid for rank, process in job.members().items()}
                paths = job.run("RedirectStandardStreams")
                self.assertEqual(paths, job.run("RedirectStandardStreams"))
                self.assertEqual(paths["stdout"], f"{self.room.top}/tmp/orvexsim{pids[0]}-stdout.txt")
                job.run("TestPrint", "text=moved")
                with open(paths["stdout"], encoding="utf-8") as file:
                    self.assertIn("moved 0", file.read())
                self.assertNotIn("moved 0", job.out())
                answer = job.ctl("EnableSlaveCout", "enableflag=true", check=False)
                self.assertIn("Cannot enable parallel output after the server has disconnected from it's parent", answer.stderr)
                job.run("TestPrint", "ranks=[1]")
                with open(paths["stdout"].replace(str(pids[0]), str(pids[1])), encoding="utf-8") as file:
                    self.assertEqual(file.read(), "", "the worker was silent and stays so")
                self.stop(job)  # and the files are gone

    def test_last_words_after_the_streams_moved(self):
        """They are in the file and at the first destination of the stream; the files stay."""
        job = self.ready("-module", "OrvexTestModule")
        paths = job.run("RedirectStandardStreams")
        job.ctl("TestCrash", "kind=abort", check=False)
        job.wait()
        for text in (job.err(), pathlib.Path(paths["stderr"]).read_text()):
            self.assertIn(" ends: abort() was called\n", text)


class Answers(Case):
    """Commands whose answer comes from all ranks."""

    def test_times_hosts_and_speeds(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready(mpi=mpi, ranks=3)
                hosts = job.run("GetHosts")
                times = job.run("GetTimes")
                self.assertEqual((len(times["CpuTimes"]), len(times["WallTimes"])), (3, 3))
                self.assertTrue(all(0 < time < 300 for time in times["WallTimes"]))
                speeds = job.run("PerformPerformanceTest")["Speeds"]
                self.assertEqual([speed > 0 for speed in speeds], [i % 4 != 0 for i in range(9)])
                self.assertEqual(job.run("GetCommunicationTimes")["CommunicationTimes"], [0, 0, 0])
                for flag, text in (("true", "Turning on"), ("false", "Turning off")):
                    job.run("EnableCommunicationTimer", f"enableFlag={flag}")
                    job.printed(f"{text} communication timer.\n")
                self.assertTrue(all(time > 0 for time in job.run("GetCommunicationTimes")["CommunicationTimes"]))
                refused = job.ctl("SetMaximumMessageBufferSize", "size=111", check=False)
                self.assertIn("must be 112 to ", refused.stderr)
                job.run("SetMaximumMessageBufferSize", "size=112")
                job.printed(r"setting maximum buffer size : 112\n"
                            r"Warning, modifying the maximum message size from \d+ to 112\n")
                self.assertEqual(job.run("GetHosts"), hosts, "messages in pieces")
                self.stop(job)

    def test_messages_are_traced(self):
        """Each rank traces, until it is told to stop: then no more lines come."""
        job = self.ready("-module", "OrvexTestModule", mpi=MPIS[0], ranks=2)
        job.run("EnableSlaveCout", "enableflag=true")
        job.run("EnableMpiDriverTracing", "enableFlag=true")
        job.run("GetHosts")
        job.run("EnableMpiDriverTracing", "enableFlag=false")
        for rank in (0, 1):
            wait_until(lambda: re.search(rf"MPI rank {rank}: Gather\(.*root=0, comm=1\) = 0 in \d", job.err()), 10 * PATIENCE,
                       job.told)
        traced = job.err().count(": Gather(")
        for _ in range(3):
            job.run("GetHosts")
        job.run("TestPrint")
        job.printed("Proc.1. : line 0")  # the launcher brings lines in their order
        self.assertLess(job.err().count(": Gather("), traced + 3)
        self.stop(job)

    def test_floating_point_fault(self):
        job = self.ready()
        error = json.loads(job.ctl("--json", "InvokeOverflow", check=False).stdout)["error"]
        self.assertEqual(error["message"], "A floating point error has occurred. The following error has been logged:\n  Non-finite "
                         "value detected while calculating 'x' in Command 'InvokeOverflow'.\nPlease check your usage and inputs.")
        self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        self.stop(job)

    def test_state_is_restored(self):
        (self.room.work / "good.sim").write_text("simulation\n")
        job = self.ready("-module", "OrvexTestModule", "-load", "good", mpi=MPIS[0], ranks=2)
        job.printed("Restored good.sim\n")
        self.stop(job)
        (self.room.work / "bad.sim").write_text("letter\n")
        job = self.start("-module", "OrvexTestModule", "-load", "bad.sim")
        self.assertEqual(job.wait(), 32)
        self.assertIn('Simulation file could not be loaded: ', job.err())
        self.assertIn('is no simulation file', job.err())


    def test_wrong_words_are_named(self):
        """Each command with a key missing, and with each key of a wrong type: the key is named, and the server goes on."""
        wrong = {"text": {"a": 1}, "bool": [1], "unsigned": -1, "int": "x", "long": 1e300, "real": "x"}
        right = {"bool": True}
        for mpi, ranks in ((None, 1), (MPIS[0], 4)):
            with self.subTest(mpi=mpi, ranks=ranks):
                job = self.ready("-module", "OrvexTestModule", mpi=mpi, ranks=ranks)
                commands = json.loads(job.ctl("--json", "list-commands").stdout)["commands"]
                client = Client(job.record())
                tried = 0
                for command in commands:
                    if command["name"].startswith("Test"):
                        continue
                    self.assertTrue(command["summary"], command)
                    keys = command["arguments"]
                    needed = {key["name"]: right.get(key["type"], "/nowhere") for key in keys if key["required"]}
                    if needed:
                        answer = client.request(command["name"])
                        self.assertTrue(any(f'"{name}"' in answer["error"]["message"] for name in needed), answer)
                    for key in keys:
                        value = wrong.get(key["type"], "x")
                        answer = client.request(command["name"], {**needed, key["name"]: value})
                        self.assertIn(f'"{key["name"]}"', answer.get("error", {}).get("message", ""), (command["name"], key))
                        tried += 1
                self.assertGreater(tried, 20)
                self.assertEqual(client.request("GetNumberOfWorkers")["result"]["NumberOfWorkers"], ranks)
                client.socket.close()
                self.stop(job)


class Modules(Case):
    def test_sandbox(self):
        """The plate's temperature is the same on any number of ranks, and right."""
        iterations = []
        for mpi, ranks in [(None, 1)] + [(mpi, 4) for mpi in MPIS]:
            with self.subTest(mpi=mpi, ranks=ranks):
                job = self.ready(mpi=mpi, ranks=ranks)
                job.run("LoadParallelSandBox")
                result = job.run("SolveHeatConduction", "nx=63", "ny=63", "source=2", "wallTemperature=300")
                self.assertTrue(result["converged"])
                self.assertEqual(result["ranks"], ranks)
                self.assertEqual(math.prod(result["processGrid"]), ranks)
                self.assertAlmostEqual(result["exactCentreTemperature"], 300.1473427066, 9)
                self.assertAlmostEqual(result["centreTemperature"], 300.1473427066, 3)
                self.assertLess(result["error"], 1e-3)
                self.assertLess(result["heatImbalance"], 1e-8)
                iterations.append(result["iterations"])
                job.printed(r"SolveHeatConduction: iteration 0, residual 1\n"
                            r"SolveHeatConduction: iteration 50, residual \S+\n")
                for words, text in ((["nx=0"], '"nx" must be from 1'), (["nx=5000", "ny=5000"], "nx * ny")):
                    self.assertIn(text, job.ctl("SolveHeatConduction", *words, check=False).stderr)
                self.stop(job)
        self.assertLessEqual(max(iterations) - min(iterations), 2)

    def test_scenes(self):
        job = self.ready(mpi=MPIS[0], ranks=2)
        job.run("CreateScene", "name=geometry", "title=The geometry")
        job.run("CreateScene", "name=mesh")
        self.assertIn("already", job.ctl("CreateScene", "name=mesh", check=False).stderr)
        scenes = job.run("GetSceneInformation")
        self.assertEqual(scenes["scenes"], [{"name": "geometry", "title": "The geometry"},
                                            {"name": "mesh", "title": "mesh"}])
        job.run("DeleteScene", "name=geometry")
        self.assertEqual(job.run("GetSceneInformation")["Number of Scenes"], 1)
        self.stop(job)


if __name__ == "__main__":
    main()
