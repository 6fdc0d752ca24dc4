"""The trace of a session: what all ranks do for a while, as a file for viewers, with the clocks of all hosts as one."""
import collections
import importlib.util
import json
import os
import pathlib
import signal
import subprocess
import unittest

from harness import MPIS, PATIENCE, Case, Room, main, wait_until
from cluster import Cluster, is_possible

SOLVER = ("-module", "OrvexParallelSandbox")
LONG = ("SolveHeatConduction", "nx=1200", "ny=1200", "tolerance=1e-15", "maxIterations=100000000", "reportInterval=0")
SHORT = ("SolveHeatConduction", "nx=16", "ny=16")
CLOCK_SOURCE = "/sys/devices/system/clocksource/clocksource0/current_clocksource"

_place = pathlib.Path(__file__).resolve().parent.parent / "support/check-trace.py"
_spec = importlib.util.spec_from_file_location("check_trace", _place)
check_trace = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(check_trace)


class Traces(Case):
    def begin(self, job, name="t.json", **more):
        """A trace that goes on until end(). Returns its client when all ranks have begun to record."""
        client = job.ctl_started("trace", "--seconds", "100", "--output", name, **more)
        wait_until(lambda: "[The trace has begun" in client.said(), 20 * PATIENCE, client.said)
        return client

    def end(self, client, name="t.json", ranks=1):
        """By Ctrl-C. Returns the slices by rank and category, and what the file tells of itself."""
        client.send_signal(signal.SIGINT)
        self.assertEqual(client.wait(30 * PATIENCE), 0, client.said())
        return self.read(name, ranks)

    def read(self, name, ranks):
        path = self.room.work / name
        self.assertEqual(check_trace.check(path, ranks), [])
        self.assertEqual(list(path.parent.glob(".*tmp")), [])
        trace = json.loads(path.read_text())
        slices = collections.defaultdict(list)
        for event in trace["traceEvents"]:
            if event["ph"] == "X":
                slices[event["pid"] - 1, event["cat"]].append(event)
        return slices, trace["otherData"]


class Jobs(Traces):
    def test_commands_one_after_the_other(self):
        for mpi, ranks in zip((*MPIS, *MPIS), (4, 4, 3, 7)):
            with self.subTest(mpi=mpi, ranks=ranks):
                job = self.ready(*SOLVER, mpi=mpi, ranks=ranks)
                client = self.begin(job)
                for command in (SHORT, ("GetHosts",), SHORT):
                    job.ctl(*command)
                slices, told = self.end(client, ranks=ranks)
                for rank in range(ranks):
                    self.assertEqual([each["name"] for each in slices[rank, "command"]],
                                     ["SolveHeatConduction", "GetHosts", "SolveHeatConduction"])
                    self.assertEqual([each.get("args") for each in slices[rank, "command"]], [None] * 3)
                    names = {each["name"] for each in slices[rank, "collective"]}
                    self.assertLessEqual({"allReduce", "broadcast", "allGather"}, names)
                    events = {each["name"] for each in slices[rank, "event"]}
                    self.assertLessEqual({"CommandController::scatterCommand", "CommandController::gatherResponse"}, events)
                self.assertGreater(told["messages"], 100)
                self.assertGreater(told["collectives"], 50)
                self.assertEqual((told["dropped"], told["silentRanks"], told["toleranceMicroseconds"]), (0, [], 0))
                self.stop(job)

    def test_a_command_at_work_is_cut_to_the_span(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready(*SOLVER, mpi=mpi, ranks=4)
                solver = job.ctl_started(*LONG)
                wait_until(lambda: "running" in json.loads(job.ctl("--json", "status").stdout), 20, solver.said)
                answer = json.loads(job.ctl("--json", "trace", "--seconds", "0.5").stdout)
                slices, told = self.read("trace.json", 4)
                self.assertEqual((answer["file"], answer["ranks"], answer["events"]), ("trace.json", 4, told["events"]))
                self.assertGreater(told["collectives"], 0)
                for rank in range(4):
                    self.assertEqual([(each["name"], each["args"]) for each in slices[rank, "command"]],
                                     [("SolveHeatConduction", {"beganBefore": True, "endedAfter": True})])
                job.ctl("cancel")
                solver.wait(20 * PATIENCE)
                self.stop(job)

    def test_ranks_that_wait_for_ever(self):
        """Nobody sends: the operation stands in the trace from its begin to its end."""
        job = self.ready("-module", "OrvexTestModule", "-module", "OrvexMistakesModule", "-stuck", "wait", mpi=MPIS[0],
                         ranks=3)
        solver = job.ctl_started("MakeMistake", "kind=receiveWithoutSend")
        wait_until(lambda: "waits in recv" in " ".join(job.ctl("where").stdout.split()), 20 * PATIENCE, solver.said)
        job.ctl("trace", "--seconds", "0.1")
        slices, told = self.read("trace.json", 3)
        self.assertEqual(told["events"], 6)
        self.assertEqual([(each["name"], each["args"]["beganBefore"], each["args"]["endedAfter"])
                          for each in slices[1, "message"]], [("recv", True, True)])
        job.ctl("abort")
        job.wait()


class Client(Traces):
    def test_files(self):
        job = self.ready()
        (self.room.work / "t.json").write_text("old")
        (self.room.work / "folder").mkdir()
        rows = [(("--output", "none/t.json"), 7, "orvexctl: The trace can't be written to none/t.json: No such file"),
                (("--output", "folder"), 2, "folder is a folder"), (("--seconds", "0"), 2, "trace takes --seconds"),
                (("--seconds", "1e9"), 2, "a number up to 600")]
        for words, code, text in rows:
            with self.subTest(words=words):
                answer = job.ctl("trace", *words, check=False)
                self.assertEqual((answer.returncode, answer.stdout), (code, ""))
                self.assertIn(text, answer.stderr)
        client = self.begin(job)
        self.assertEqual((self.room.work / "t.json").read_text(), "old")
        job.ctl("GetHosts")
        slices, told = self.end(client)
        self.assertEqual(told["ranks"], 1)
        self.stop(job)

    @unittest.skipUnless(is_possible(), "needs root")
    def test_a_full_disk(self):
        job = self.ready()
        disk = self.room.work / "disk"
        disk.mkdir()
        # Below a page that the file's names need.
        mounted = ["unshare", "-m", "sh", "-c", 'mount -t tmpfs -o size=4k none disk && dd if=/dev/zero of=disk/full bs=4k '
                   'count=1 2>/dev/null; "$@"; code=$?; ls -A disk; exit $code', "sh"]
        answer = subprocess.run([*mounted, *job._client(["trace", "--seconds", "0.1", "--output", "disk/t.json"])],
                                cwd=self.room.work, env=self.room.environment(), capture_output=True, text=True, timeout=60)
        self.assertEqual((answer.returncode, answer.stdout), (7, "full\n"), answer)
        self.assertIn("can't be written to disk/t.json: No space left on device", answer.stderr)
        self.stop(job)

    def test_a_server_without_a_channel(self):
        job = self.ready("-nothreads")
        answer = job.ctl("trace", check=False)
        self.assertEqual(answer.returncode, 1)
        self.assertIn("can't be traced: it has no error channel, as with -nothreads", answer.stderr)
        self.stop(job)

    def test_a_client_that_dies(self):
        """The server lives, and nobody else gets the trace at once."""
        job = self.ready(mpi=MPIS[0], ranks=2)
        client = self.begin(job)
        client.kill()
        client.wait()
        answer = job.ctl("trace", check=False)
        self.assertEqual(answer.returncode, 1)
        self.assertRegex(answer.stderr, r"is being taken: for orvexctl, process \d+ on \S+, since \d+ s")
        job.ctl("GetHosts")
        self.assertEqual(job.stop(), 0)


@unittest.skipUnless(is_possible(), "needs root, and a kernel that lets it make hosts")
class Hosts(Traces):
    def test_clocks_of_two_hosts(self):
        """The second host's clock is an hour ahead. The processor's counter can't be moved: the servers are told that
        the system doesn't trust it."""
        cluster = self.enterContext(Cluster(2))
        source = self.room.top / "source"
        source.write_text("hpet\n")
        for host in range(2):
            subprocess.run(cluster.on(host, "mount", "--bind", source, CLOCK_SOURCE), check=True)
        shift = self.room.top / "shift"
        shift.write_text('#!/bin/sh\n[ "$(hostname)" = node0 ] && exec "$@"\nexec unshare --time --monotonic 3600 "$@"\n')
        shift.chmod(0o700)
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                room, self.room = self.room, Room()  # the harness knows the members of a job by their room
                self.addCleanup(self.room.leave)
                job = self.ready(*SOLVER, "-cpubindcontentiontest", "disable", mpi=mpi, cluster=cluster, slots=[2, 2],
                                 prefix=[shift])
                client = self.begin(job)
                for command in (SHORT, SHORT):
                    job.ctl(*command)
                os.kill(next(p.pid for p in self.room.processes() if "trace" in p.words() and "orvexctl" in p.words()[0]),
                        signal.SIGINT)
                self.assertEqual(client.wait(30 * PATIENCE), 0, client.said())
                slices, told = self.read("t.json", 4)
                self.assertEqual((told["hosts"], told["hostsWithUnknownClock"]), (2, []))
                self.assertGreater(told["messages"], 100)
                self.assertLess(0, float(told["toleranceMicroseconds"]))
                begins = [float(slices[rank, "command"][0]["ts"]) for rank in range(4)]
                self.assertLess(max(begins) - min(begins), 1e9)  # [us], an hour is more
                self.stop(job)
                self.room = room


if __name__ == "__main__":
    main()
