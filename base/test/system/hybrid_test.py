"""Hybrid work from outside: the commands that check it, on one host and on two, and what a failure in it does."""
import os
import re
import unittest

from harness import MPIS, PATIENCE, Case, main, wait_until
from cluster import Cluster, is_possible
from placement_test import ALLOWED, HARDWARE, PROCESSORS, wait_alone

WARNING = "Warning: The {} command is intended for testing purposes only.\n"


def announced(scope, time):
    return (f"Calculating Pi using hybrid MPI/thread mode with {scope} scope and a target wall time of {time} ms.\n")


class Hybrid(Case):
    def setUp(self):
        super().setUp()
        wait_alone()

    def told(self, job, *words):
        """What a command prints. Pi and shares of time are replaced by the word NUMBER."""
        told = job.ctl(*words).stdout.partition("pass     ")[0]
        return re.sub(r"(Pi = |overhead: )[\d.e+-]+", r"\1NUMBER", told)

    def test_threads_take_the_places_of_the_ranks(self):
        if PROCESSORS < 2:
            self.skipTest("needs two processors")
        masks = [1 << processor for processor in ALLOWED]
        for mpi, option in zip((*MPIS, MPIS[0]), ("-xthreadbindverbose", "-xthreadbindverbose", "-xthreadbindoff")):
            with self.subTest(mpi=mpi, option=option):
                job = self.ready(option, mpi=mpi, ranks=2, environment=HARDWARE)
                report = "" if option.endswith("off") else \
                    f'Thread Binding Report for "HybridPi::CalculatePiWithThreads" (total number of threads = 2):\n' \
                    f"  Hybrid Process #0 (threads = 2, on {os.uname().nodename}):\n    Process Affinity = {{S00 : 0x{masks[0] | masks[1]:x}}}\n" \
                    f"    TBB Thread 0 - Affinity = {{S00[1 0] : 0x{masks[0]:x}}}\n" \
                    f"    TBB Thread 1 - Affinity = {{S00[0 1] : 0x{masks[1]:x}}}\n"
                pi = "HybridPi HybridMachine Report:\n  Number of Hybrid Processes: 1\n  Total Number of Cores: 2\n" \
                     "    Hybrid Process #0: 2 local cores\nPi = NUMBER\n" + report
                self.assertEqual(self.told(job, "HybridPi", "verb=true", "time=300"), WARNING.format("HybridPi") +
                                 "".join(announced(scope, 300) + pi for scope in ("HOST", "SOCKET", "NUMA")))
                idling = self.told(job, "TestHybridIdling", "time=500", "scope=NUMA", "threshold=0.1")
                self.assertEqual(idling, WARNING.format("TestHybridIdling") + "Invalid scope 'NUMA'! Fallback to 'host'.\n" +
                                 announced("NUMA", 500) + "Pi = NUMBER\n" + report + "Test succeeded: Non-involved CPUs are idle!\n"
                                 "Number of busy processes: 1\nNumber of idle processes: 1\n"
                                 "Idle process overhead: NUMBER% (allowed: 10%).\n")
                self.assertIs(job.run("RelaxAffinity")["pass"], True)
                job.ctl("ShmemTest")
                for rank in (0, 1):
                    job.printed(rf"My global rank =  {rank}; Global rank of node master =  0; Shared data = 3.14159\n")
                self.stop(job)

    def test_the_sandbox_gives_one_answer_in_three_forms(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready("-module", "OrvexParallelSandbox", mpi=mpi, ranks=4)
                plain, hybrid, window = (job.run("SolveHeatConduction", "nx=40", "ny=31", *words)
                                         for words in ((), ("hybrid=true",), ("halo=window",)))
                for form, grid in ((plain, [2, 2]), (hybrid, [1, 1]), (window, [2, 2])):
                    self.assertEqual(form["processGrid"], grid)
                    self.assertTrue(form["converged"])
                    self.assertAlmostEqual(form["iterations"], plain["iterations"], delta=2)
                    self.assertAlmostEqual(form["centreTemperature"], plain["centreTemperature"], delta=1e-10)
                self.stop(job)

    def test_a_process_that_dies_meanwhile_ends_the_job(self):
        for mpi in MPIS:
            for rank in (0, 2):  # one that works, one that sleeps
                with self.subTest(mpi=mpi, rank=rank):
                    job = self.ready(mpi=mpi, ranks=3)
                    members = job.members()
                    client = job.ctl_started("HybridPi", "time=60000")
                    wait_until(lambda: "HOST scope" in job.out(), 10 * PATIENCE, job.told)
                    members[rank].kill()
                    self.assertNotEqual(job.wait(20 * PATIENCE), 0)
                    client.wait(10 * PATIENCE)
                    wait_until(lambda: not self.room.processes(), 5 * PATIENCE, self.room.leftovers)


@unittest.skipUnless(is_possible(), "needs root, and a kernel that lets it make hosts")
class HybridHosts(Case):
    def test_each_host_has_a_process_with_threads(self):
        cluster = self.enterContext(Cluster(2))
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                wait_alone()
                job = self.ready("-xthreadbindverbose", "-module", "OrvexParallelSandbox", mpi=mpi, slots=[2, 2],
                                 cluster=cluster)
                told = job.ctl("HybridPi", "verb=true", "time=50").stdout
                self.assertIn("HybridPi HybridMachine Report:\n  Number of Hybrid Processes: 2\n"
                              "  Total Number of Cores: 4\n    Hybrid Process #0: 2 local cores\n"
                              "    Hybrid Process #1: 2 local cores\nPi = 3.", told)
                self.assertIs(job.run("TestHybridIdling", "time=500", "threshold=0.1")["pass"], True)
                job.ctl("ShmemTest")
                for rank, master, value in ((0, 0, "3.14159"), (1, 0, "3.14159"), (2, 2, "2.71828"), (3, 2, "2.71828")):
                    job.printed(rf"My global rank =  {rank}; Global rank of node master =  {master}; Shared data = {value}\n")
                answer = job.run("SolveHeatConduction", "hybrid=true", "nx=40", "ny=40")
                self.assertEqual(sorted(answer["processGrid"]), [1, 2])
                self.assertTrue(answer["converged"])
                self.stop(job)


if __name__ == "__main__":
    main()
