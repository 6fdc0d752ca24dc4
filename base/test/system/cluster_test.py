"""Jobs over several hosts, which are made of namespaces: each with its name, network and processes, all of them
on this machine's processors."""
import json
import os
import re
import subprocess
import unittest

from harness import BUILD, DRIVERS, MPIS, START_LIMIT, Case, Room, main
from cluster import Cluster, is_possible
from placement_test import ALL, ALLOWED, FIRST, HARDWARE, PROCESSORS, wait_alone

# The hardware of the hosts in these tests; no process is really bound to it.
LARGE = {"HWLOC_SYNTHETIC": "pack:2 [numa] core:2 pu:1", "HWLOC_THISSYSTEM": "0"}


@unittest.skipUnless(is_possible(), "needs root, and a kernel that lets it make hosts")
class Hosts(Case):
    def setUp(self):
        super().setUp()
        wait_alone()
        self.cluster = self.enterContext(Cluster(3))

    def separate(self):
        """From now on no host sees the processes of another; the MPIs that can do without."""
        self.cluster = self.enterContext(Cluster(3, own_processes=True))
        return [mpi for mpi in MPIS if mpi == "openmpi"]

    def ready(self, *options, hardware=HARDWARE, **more):
        self.room = Room()  # of its own: the harness knows the members of a job by their room
        self.addCleanup(self.room.leave)
        return super().ready(*options, environment=hardware, cluster=self.cluster, **more)

    def bindings(self, job):
        return [os.sched_getaffinity(process.pid) for _, process in sorted(job.members().items())]

    def test_a_job_knows_its_hosts(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                # Ranks 0-2, 3-4 and 5-6; each host has one core for each rank except node0, which has 4 for 3.
                job = self.ready("-printpids", "-cpubind", "latency", "-cpubindextendedverbosity",
                                 "-module", "OrvexTestModule", mpi=mpi, slots=[3, 2, 2], hardware=LARGE)
                told, members, hosts = job.out(), job.members(), job.run("GetHosts")
                self.assertIn("    S01 = N01 : [02 03]\n  node0 :\n    Rank - 0, Affinity = {", told)
                self.assertEqual(re.findall(r"No CPU contention .* on (.*)\.", told), ["node0", "node1", "node2"])
                for rank, host in enumerate([0, 0, 0, 1, 1, 2, 2]):
                    pid = members[rank].own_pid()
                    self.assertIn(f"\nHost ID {host} Rank {rank} on node{host} with process ID {pid}\n", told)
                    self.assertEqual(hosts[f"Rank[{rank}]"], f"node{host}")
                self.assertEqual([(host["hostname"], host["ranks"]) for host in job.run("GetSystemInformation")["hosts"]],
                                 [("node0", [0, 1, 2]), ("node1", [3, 4]), ("node2", [5, 6])])
                failed = job.ctl("TestFail", "ranks=[5]", check=False)
                self.assertNotEqual(failed.returncode, 0)
                self.assertIn("rank 5", failed.stderr)
                for rank in (3, 4):  # a host goes: the others end by themselves
                    members[rank].kill()
                job.wait()
                self.assertNotEqual(job.process.returncode, 0)
                self.room.end_all()

    def test_an_over_subscribed_host(self):
        """It is warned of, and its ranks run unbound."""
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready("-cpubindcontentiontest", "disable", "-cpubindverbose", mpi=mpi,
                                 slots=[1, PROCESSORS + 2, 1])
                self.assertIn("Warning: The host machine [node1] has been over-subscribed.\n", job.out())
                self.assertEqual(self.bindings(job), [FIRST, *[ALL] * (PROCESSORS + 2), FIRST])
                self.stop(job)

    def test_contention_is_a_matter_of_each_host(self):
        """Hosts that are alike; then one of them has another server, and its rank alone moves."""
        mpis = self.separate()
        for mpi in mpis:
            with self.subTest(mpi=mpi):
                job = self.ready("-cpubindextendedverbosity", mpi=mpi, slots=[PROCESSORS] * 3)
                self.assertEqual(self.bindings(job), [{number} for number in ALLOWED] * 3)
                self.assertIn("CPU Affinity Report (equal for all hosts) :\n", job.out())
                self.assertEqual(job.out().count("    No other server processes found on this host.\n"), 3)
                self.stop(job)
                other_pid = self.ready().record()["pid"]  # alone on node0
                job = self.ready("-cpubindextendedverbosity", mpi=mpi, slots=[1, 1, 1])
                self.assertIn(f"    Other Servers, PIDs : {{{other_pid}}}\n", job.out())
                self.assertIn("Detected CPU contention on 1 host. Attempting to resolve", job.out())
                self.assertEqual(self.bindings(job), [{ALLOWED[-1]}, FIRST, FIRST])
                self.stop(job)

    def test_communicators_follow_the_hosts(self):
        """One for the ranks of each host, and one of the first ranks of all."""
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                words = [BUILD / "bin/ParallelMachine", "--gtest_filter=SharedMemory.FollowsTheHostsOfTheJob",
                         "-mpi", DRIVERS[mpi]]
                answer = subprocess.run(self.cluster.job(mpi, [3, 2, 2], *words), capture_output=True, text=True,
                                        timeout=START_LIMIT * 2, env=self.room.environment(), stdin=subprocess.DEVNULL)
                self.assertEqual(answer.returncode, 0, answer)
                self.assertIn("The first ranks of 3 hosts: 0 3 5\n", answer.stdout)


if __name__ == "__main__":
    main()
