"""Where servers run: bindings read from outside, servers on one host that get out of each other's way, and the
commands about it."""
import json
import os
import re
import shutil
import subprocess
import time
import unittest

from harness import MPIS, START_LIMIT, Case, Room, main

# The hardware of the machine is what it is: these tests see two of its processors, or one.
PROCESSORS = min(2, len(os.sched_getaffinity(0)))
HARDWARE = {"HWLOC_SYNTHETIC": f"pack:1 [numa] core:{PROCESSORS} pu:1", "HWLOC_THISSYSTEM": "1"}
STARS = "*" * 84


def wait_alone():
    """Servers of other tests would be seen, and got out of the way of."""
    end = time.monotonic() + 60
    while time.monotonic() < end:
        names = [open(f"/proc/{pid}/comm").read().strip() for pid in os.listdir("/proc")
                 if pid.isdigit() and os.path.exists(f"/proc/{pid}/comm")]
        if "orvexsim" not in names:
            return
        time.sleep(0.2)


def words(flags):
    return "mask=" + json.dumps(flags, separators=(",", ":"))


class Placement(Case):
    def setUp(self):
        super().setUp()
        wait_alone()

    def ready(self, *options, **more):
        self.room = Room()  # of its own: the harness knows the members of a job by their room
        self.addCleanup(self.room.leave)
        return super().ready(*options, environment=HARDWARE, **more)

    def bindings(self, job):
        return [os.sched_getaffinity(process.pid) for _, process in sorted(job.members().items())]

    def test_a_job_takes_a_core_for_each_rank(self):
        for mpi in MPIS:
            for policy in ((), ("-cpubind", "latency"), ("-cpubind", "bandwidth")):
                with self.subTest(mpi=mpi, policy=policy):
                    job = self.ready(*policy, "-cpubindverbose", mpi=mpi, ranks=PROCESSORS)
                    self.assertEqual(self.bindings(job), [{rank} for rank in range(PROCESSORS)])
                    hosts = job.run("GetAffinity")["hosts"]
                    self.assertEqual([mask["mask"].index(True) for mask in hosts[0]["masks"]],
                                     list(range(PROCESSORS)))
                    flags = [rank == 0 for rank in range(PROCESSORS)]
                    self.assertEqual(job.run("SetAffinity", words(flags))["mask"], flags)
                    self.assertEqual(self.bindings(job), [{0}] * PROCESSORS)
                    relaxed = job.run("RelaxAffinity")
                    self.assertEqual([relaxed["pass"], relaxed["message"]],
                                     [True, "Successfully relaxed and restored process affinity."])
                    self.assertEqual(self.bindings(job), [{0}] * PROCESSORS)
                    self.assertEqual(job.run("ClearAffinity")["mask"], [True] * PROCESSORS)
                    self.assertEqual(self.bindings(job), [set(range(PROCESSORS))] * PROCESSORS)
                    self.assertEqual(len(job.run("GetSystemInformation")["hosts"][0]["processes"]), PROCESSORS)
                    for argument, complaint in (("mask=[]", "Failed to set CPU affinity with mask {- : 0x0}"),
                                             (words([True] * 9), "it holds 9"),
                                             ("mask=3", "mask"), ("", "mask")):
                        answer = job.ctl("SetAffinity", *argument.split(), check=False)
                        self.assertNotEqual(answer.returncode, 0)
                        self.assertIn(complaint, answer.stdout + answer.stderr)
                    self.assertIn("Symmetric: yes", job.ctl("ReportAffinity", "text=true").stdout)
                    self.assertRegex(job.out(), r"(?s)\ACPU Affinity Report \(.*\) :\n    S00 = N00 : \[00.*\]\n"
                                                r"    Rank - 0, Affinity = \{")
                    self.stop(job)

    def test_more_ranks_than_cores_run_unbound(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready(mpi=mpi, ranks=PROCESSORS + 1)
                self.assertEqual(self.bindings(job), [set(range(PROCESSORS))] * (PROCESSORS + 1))
                self.stop(job)

    def test_hardware_that_cannot_be_read(self):
        """The run goes on with what the operating system tells, and the reader's arithmetic is no fault of the job."""
        broken = self.room.work / "broken.xml"
        broken.write_text("no XML")
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = Case.ready(self, "-cpubindverbose", mpi=mpi, ranks=2, environment={"HWLOC_XMLFILE": str(broken)})
                self.assertIn("CPU Affinity Report (", job.out())
                self.assertEqual(len(job.run("GetAffinity")["hosts"][0]["masks"]), 2)
                self.stop(job)

    def test_without_binding(self):
        job = self.ready("-cpubind", "disable")
        self.assertEqual(self.bindings(job), [os.sched_getaffinity(0)])
        self.stop(job)

    def test_the_later_server_moves(self):
        """As long as there is room; then it says so and runs unbound. One that isn't bound is in nobody's way."""
        unbound = self.ready("-cpubind", "disable")
        first = self.ready("-cpubindextendedverbosity")
        self.assertEqual(self.bindings(first), [{0}])
        self.assertIn(f"Other Servers, PIDs : {{{unbound.members()[0].pid}}}\n", first.out())
        self.assertIn("    ----------\n    No CPU contention detected for servers on ", first.out())
        taken = 1
        if PROCESSORS > 1:
            second = self.ready("-cpubindextendedverbosity", mpi=MPIS[0])
            told = second.out()
            self.assertIn("    Over-subscribed Cores on Host:  {S00[1 0] : 0x1} = (1 core)\n"
                          "    => Available to Current Server: {S00[0 1] : 0x2} = (1 core)\n"
                          "    ----------\n    CPU contention detected for servers on ", told)
            self.assertIn("Detected CPU contention on 1 host. Attempting to resolve CPU contention on that host.\n"
                          "CPU contention on all processes has been resolved.\n", told)
            taken = 2
        last = self.ready("-cpubindverbose")
        self.assertEqual(taken, PROCESSORS)
        self.assertIn("Detected CPU contention on 1 host. Attempting to resolve CPU contention on that host.\n"
                      f"{STARS}\nWarning: CPU contention on 1 process could not be resolved.\n"
                      "         CPU affinity will be cleared on that process.\n\n"
                      "         This is a strong indication that some hosts are over-subscribed.\n"
                      "         Over-subscribing a host is discouraged since it can severely affect performance.\n"
                      f"{STARS}\n", last.out())
        self.assertNotIn("Waiting for", last.out())
        self.assertEqual(self.bindings(last), [set(range(PROCESSORS))])
        quiet = self.ready("-cpubindcontentiontest", "disable", "-cpubindextendedverbosity")
        self.assertNotIn("contention", quiet.out())
        self.assertEqual(self.bindings(quiet), [{0}])
        self.assertIsNone(re.search("contention", self.ready("-cpubind", "disable", "-cpubindverbose").out()))

    @unittest.skipIf(PROCESSORS < 2, "needs a processor to move to")
    def test_another_that_follows(self):
        """Who gets in the way again right after a move: the server waits a while and tries again."""
        self.room = Room()
        self.addCleanup(self.room.leave)
        impostor = self.room.top / "orvexsim"
        shutil.copy(shutil.which("sleep"), impostor)
        other = subprocess.Popen(["another server", "100"], executable=impostor, env=self.room.environment())
        self.addCleanup(other.wait)
        retry = re.compile(r"Resolving CPU contention failed. Waiting for (\d+) milliseconds before trying again.\n")
        for _ in range(10):  # the other one isn't always fast enough
            os.sched_setaffinity(other.pid, {0})
            job = self.start("-cpubindverbose", environment=HARDWARE)
            end = time.monotonic() + START_LIMIT
            while not retry.search(job.out()) and "has been resolved" not in job.out():
                self.assertIsNone(job.process.poll(), job.told())
                self.assertLess(time.monotonic(), end, job.told())
                for _ in range(1000):
                    taken = os.sched_getaffinity(job.process.pid)
                    if len(taken) == 1:
                        os.sched_setaffinity(other.pid, taken)
            job.wait_ready()
            if retry.search(job.out()):
                break
            job.stop()
        pauses = [int(pause) for pause in retry.findall(job.out())]
        self.assertTrue(pauses, job.told())
        self.assertTrue(all(100 <= pause <= 1000 for pause in pauses), pauses)
        self.assertIn("CPU contention on all processes has been resolved.\n", job.out())
        self.assertNotEqual(os.sched_getaffinity(job.process.pid), os.sched_getaffinity(other.pid))
        other.kill()
        self.stop(job)


if __name__ == "__main__":
    main()
