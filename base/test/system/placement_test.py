"""The places of servers: bindings read from outside, servers on one host that get out of each other's way, and the
commands about it."""
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import unittest

from harness import MPIS, PATIENCE, SERVER, START_LIMIT, STOP_LIMIT, Case, Process, Room, main, wait_until

# The hardware of the machine is what it is: these tests see two of the processors that they may use, or one.
ALLOWED = sorted(os.sched_getaffinity(0))[:2]
PROCESSORS = len(ALLOWED)
FIRST, ALL = {ALLOWED[0]}, set(ALLOWED)
STARS = "*" * 84


def hardware(cores, processors):
    numbers = ",".join(map(str, processors))
    return {"HWLOC_SYNTHETIC": f"pack:1 [numa] core:{cores} pu:1(indexes={numbers})", "HWLOC_THISSYSTEM": "1"}


HARDWARE = hardware(PROCESSORS, ALLOWED)


def wait_alone():
    """Servers of other tests would be seen, and got out of the way of."""
    def others():
        return [pid for pid in os.listdir("/proc") if pid.isdigit()
                and Process(pid).read("comm").strip() == b"orvexsim" and Process(pid).alive()]

    wait_until(lambda: not others(), 60 * PATIENCE, lambda: f"no other servers run: {others()}")


def words(flags):
    return "mask=" + json.dumps(flags, separators=(",", ":"))


def make_cpuset(case, processor):
    """A control group of one processor, until the end of the test: the file that a process joins it by."""
    for line in pathlib.Path("/proc/mounts").read_text().splitlines():
        _, top, kind, options, *_ = line.split()
        top = pathlib.Path(top)
        group = top / f"orvex-test-{os.getpid()}"
        with contextlib.suppress(OSError):
            if kind == "cgroup" and "cpuset" in options.split(","):
                prefix = "cpuset." if (top / "cpuset.cpus").exists() else ""
            elif kind == "cgroup2" and "cpuset" in (top / "cgroup.subtree_control").read_text().split():
                prefix = "cpuset."
            else:
                continue
            group.mkdir()
            case.addCleanup(group.rmdir)
            nodes = top / f"{prefix}mems"
            (group / f"{prefix}mems").write_text(nodes.read_text() if nodes.exists() else "")
            (group / f"{prefix}cpus").write_text(str(processor))
            return group / "cgroup.procs"
    case.skipTest("no control group for a cpuset can be made here")


class Placement(Case):
    def setUp(self):
        super().setUp()
        wait_alone()

    def ready(self, *options, environment=HARDWARE, **more):
        self.room = Room()  # of its own: the harness knows the members of a job by their room
        self.addCleanup(self.room.leave)
        return super().ready(*options, environment=environment, **more)

    def bindings(self, job):
        return [os.sched_getaffinity(process.pid) for _, process in sorted(job.members().items())]

    def test_a_job_takes_a_core_for_each_rank(self):
        for mpi, policy in zip((*MPIS, None, MPIS[0]), ((), ("-cpubind", "latency"), (), ("-cpubind", "bandwidth"))):
            with self.subTest(mpi=mpi, policy=policy):
                ranks = PROCESSORS if mpi else 1
                job = self.ready(*policy, "-cpubindverbose", mpi=mpi, ranks=ranks)
                self.assertEqual(self.bindings(job), [{number} for number in ALLOWED[:ranks]])
                hosts = job.run("GetAffinity")["hosts"]
                self.assertEqual([mask["mask"].index(True) for mask in hosts[0]["masks"]], list(range(ranks)))
                flags = [number == 0 for number in range(PROCESSORS)]
                self.assertEqual(job.run("SetAffinity", words(flags))["mask"], flags)
                self.assertEqual(self.bindings(job), [FIRST] * ranks)
                relaxed = job.run("RelaxAffinity")
                self.assertEqual([relaxed["pass"], relaxed["message"]],
                                 [True, "Successfully relaxed and restored process affinity."])
                self.assertEqual(self.bindings(job), [FIRST] * ranks)
                self.assertEqual(job.run("ClearAffinity")["mask"], [True] * PROCESSORS)
                self.assertEqual(self.bindings(job), [ALL] * ranks)
                for argument, complaint in (("mask=[]", "Failed to set CPU affinity with mask {- : 0x0}"),
                                            (words([True] * 9), "it holds 9"), ("mask=3", "mask"), ("", "mask")):
                    answer = job.ctl("SetAffinity", *argument.split(), check=False)
                    self.assertIn(complaint, answer.stderr)
                self.assertIn("Symmetric: yes", job.ctl("ReportAffinity", "text=true").stdout)
                self.stop(job)

    def test_hardware_that_cannot_be_read_or_bound(self):
        """The run goes on with what is known, and the reader's arithmetic is no fault of the job."""
        broken = self.room.work / "broken.xml"
        broken.write_text("no XML")
        everywhere = [os.sched_getaffinity(0)] * 3
        rows = [(None, {"HWLOC_XMLFILE": str(broken)}, r"", None),
                (MPIS[0], {"HWLOC_XMLFILE": str(broken)}, r"", None),
                (MPIS[-1], {"HWLOC_COMPONENTS": "stop"}, r"\[00\]\n    Rank - 0, Affinity = \{- : 0x0\}", everywhere),
                (MPIS[0], hardware(3, (900, 901, 902)),
                 r"\[00 01 02\]\n    Rank - 0, Affinity = \{- : 0x[0-9a-f]+\}", everywhere)]
        for mpi, environment, text, bindings in rows:
            prefix = ["env", *(f"{key}={value}" for key, value in environment.items())]  # for the launcher none of it
            with self.subTest(environment=environment, mpi=mpi):
                job = self.ready("-cpubindextendedverbosity", mpi=mpi, ranks=3, prefix=prefix, environment={})
                self.assertIn("    No other server processes found on this host.\n", job.out())
                self.assertRegex(job.out(), r"CPU Affinity Report \(.*\) :\n    S00 = N00 : " + text)
                if bindings:
                    self.assertNotIn("over-subscribed", job.out())
                    self.assertEqual(self.bindings(job), bindings)
                self.assertEqual(len(job.run("GetAffinity")["hosts"][0]["masks"]), 3 if mpi else 1)
                self.stop(job)

    @unittest.skipIf(os.geteuid() != 0 or PATIENCE != 1, "needs root, to take /proc away, and no sanitizer, which needs it")
    def test_without_a_list_of_processes(self):
        job = self.ready("-cpubindextendedverbosity",
                         prefix=["unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /proc && exec "$@"', "sh"])
        self.assertIn("    No other server processes found on this host.\n", job.out())
        self.assertRegex(job.out(), r"CPU Affinity Report \(.*\) :\n.*\n    Rank - 0, Affinity = \{- : 0x0\}\n")
        self.assertEqual(self.bindings(job), [os.sched_getaffinity(0)])
        self.assertEqual(job.run("GetSystemInformation")["hosts"][0]["ranks"], [0])
        self.stop(job)

    @unittest.skipIf(PROCESSORS < 2, "needs a processor to do without")
    def test_a_cpuset(self):
        """Processors that a container or a batch system keeps away are neither used nor counted."""
        self.check_kept(["sh", "-c", 'echo $$ > "$0" && exec "$@"', str(make_cpuset(self, ALLOWED[1]))], ALLOWED[1])

    @unittest.skipIf(PROCESSORS < 2, "needs a processor to do without")
    def test_a_batch_system(self):
        """Processors that it gave by affinity alone are kept to as well, all ranks of a host together; a user's taskset isn't."""
        batch = ["env", "SLURM_JOB_ID=17"]  # for the launcher there is no Slurm
        second = ["taskset", "-c", str(ALLOWED[1])]
        self.check_kept([*batch, *second], ALLOWED[1])
        crossed = ["sh", "-c", 'cpu=$0; [ "${OMPI_COMM_WORLD_RANK-$PMI_RANK}" = 1 ] && cpu=$1; shift; exec taskset -c $cpu "$@"',
                   str(ALLOWED[1]), str(ALLOWED[0])]
        for expected, more in (([{number} for number in ALLOWED], {"mpi": MPIS[0], "ranks": 2, "prefix": [*batch, *crossed]}),
                               ([FIRST], {"prefix": second})):  # of what both ranks were given, each takes its own
            job = self.ready(**more)
            self.assertEqual(self.bindings(job), expected)
            self.stop(job)

    def check_kept(self, prefix, processor):
        for mpi in (None, MPIS[-1]):
            with self.subTest(mpi=mpi):
                job = self.ready(mpi=mpi, ranks=2, prefix=prefix, environment={})
                warning = "         The host has 1 too many processes allocated to it.\n"
                self.assertEqual(warning in job.out(), mpi is not None)
                self.assertEqual(self.bindings(job), [{processor}] * (2 if mpi else 1))
                mask = job.run("ClearAffinity")["mask"]
                self.assertEqual(mask.count(True), 1, mask)
                self.assertEqual(job.run("GetAffinity")["hosts"][0]["masks"][0]["mask"], mask)
                self.assertEqual(self.bindings(job), [{processor}] * (2 if mpi else 1))
                self.stop(job)

    def test_where_the_system_puts_it(self):
        job = self.ready("-cpubind", "disable", "-cpubindverbose")
        self.assertEqual(self.bindings(job), [os.sched_getaffinity(0)])
        told = int(re.search(r"Rank - 0, Affinity = \{.* : (0x[0-9a-f]+)\}", job.out())[1], 16)
        self.assertEqual(told, sum(1 << number for number in ALL))
        self.stop(job)

    def start_as(self, user):
        """A bound server of a user without rights, which can't look into the processes of others."""
        room = self.room = Room()
        self.addCleanup(room.leave)
        self.addCleanup(shutil.rmtree, f"/tmp/orvex-{user}", True)
        room.top.chmod(0o755)
        for name in ("home", "tmp", "work"):
            os.chown(room.top / name, user, user)
        prefix = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
        if subprocess.run([*prefix, "test", "-x", SERVER]).returncode != 0:
            self.skipTest("other users can't run the server of this build")
        job = self.start("-cpubindextendedverbosity", environment=HARDWARE, prefix=prefix)
        wait_until(lambda: "Server::start" in job.out() or job.process.poll() is not None, START_LIMIT, job.told)
        return job

    @unittest.skipIf(os.geteuid() != 0 or PROCESSORS < 2, "needs root, and a processor to move to")
    def test_servers_of_other_users(self):
        """They are known by name and binding alone; one that has ended is in nobody's way."""
        first, second = self.start_as(54321), self.start_as(54322)
        self.assertEqual([os.sched_getaffinity(job.process.pid) for job in (first, second)], [{n} for n in ALLOWED])
        self.assertIn(f"    Other Servers, PIDs : {{{first.process.pid}}}\n", second.out())
        first.process.send_signal(signal.SIGKILL)  # and isn't waited for: it stays in the list of processes
        wait_until(lambda: not Process(first.process.pid).alive(), STOP_LIMIT, "the first one is dead")
        third = self.start_as(54323)
        self.assertEqual(os.sched_getaffinity(third.process.pid), FIRST)
        self.assertIn(f"    Other Servers, PIDs : {{{second.process.pid}}}\n", third.out())
        for job in (second, third):
            job.process.terminate()
            self.assertEqual(job.wait(), 0, job.told())

    def test_the_later_server_moves(self):
        """As long as there is room; then it says so and runs unbound. One that isn't bound is in nobody's way."""
        unbound = self.ready("-cpubind", "disable", "-cpubindverbose")
        first = self.ready("-cpubindextendedverbosity")
        self.assertEqual(self.bindings(first), [FIRST])
        self.assertIn(f"Other Servers, PIDs : {{{unbound.members()[0].pid}}}\n", first.out())
        detected = "Detected CPU contention on 1 host. Attempting to resolve CPU contention on that host.\n"
        if PROCESSORS > 1:  # no room for all: nobody moves, at once
            job = self.ready("-cpubindverbose", mpi=MPIS[-1], ranks=2)
            self.assertIn(f"{detected}{STARS}\nWarning: CPU contention on 2 processes could not be resolved.\n"
                          "         CPU affinity will be cleared on those processes.\n\n", job.out())
            self.assertEqual(self.bindings(job), [ALL, ALL])
            self.stop(job)
            second = self.ready("-cpubindextendedverbosity", mpi=MPIS[0])
            self.assertIn(f"{detected}CPU contention on all processes has been resolved.\n", second.out())
        last = self.ready("-cpubindverbose")
        if PROCESSORS > 1:
            self.assertIn(f"{detected}{STARS}\nWarning: CPU contention on 1 process could not be resolved.\n"
                          "         CPU affinity will be cleared on that process.\n\n"
                          "         This is a strong indication that some hosts are over-subscribed.\n"
                          "         Over-subscribing a host is discouraged since it can severely affect performance.\n"
                          f"{STARS}\n", last.out())
        else:  # a process that is bound to all that there is isn't bound to anything in particular
            self.assertNotIn("contention", last.out())
        self.assertNotIn("Waiting for", last.out())
        self.assertEqual(self.bindings(last), [ALL])
        quiet = self.ready("-cpubindcontentiontest", "disable", "-cpubindextendedverbosity")
        self.assertEqual(self.bindings(quiet), [FIRST])
        for job in (quiet, unbound):
            self.assertNotIn("contention", job.out())


if __name__ == "__main__":
    main()
