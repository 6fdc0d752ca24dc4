"""Ranks that fail alone, in groups or together: the job goes on or ends within the times told, with the reason."""
import re
import time

from harness import MPIS, PATIENCE, Case, main

INTERNAL = ("TestFail", "kind=internal")
ERROR_STATUS = 32


class Errors(Case):
    """Non-recoverable errors, raised on the ranks of each row."""

    def ready(self, *options, **more):
        return super().ready("-module", "OrvexTestModule", *options, **more)

    def ends(self, job, rank, limit):
        """The job ends by itself with the error of this rank, its stack and its exit value."""
        status = job.wait(limit * PATIENCE)
        self.assertEqual(status, ERROR_STATUS, job.told())
        self.assertIn(f"Error: A test failed on rank {rank}\n", job.err())
        self.assertRegex(job.err(), r"\n  .*fail\(.* at .*OrvexTestModule\.cpp:\d+")
        self.nothing_left()

    def test_all_ranks_together_fail_the_command(self):
        for mpi in MPIS:
            for ranks in (1, 2, 4, 7):
                with self.subTest(mpi=mpi, ranks=ranks):
                    job = self.ready(mpi=mpi, ranks=ranks)
                    # The last rank is at most 0.4 s late.
                    for late in (0.0, 0.4 / max(1, ranks - 1)):
                        begin = time.monotonic()
                        answer = job.ctl(*INTERNAL, f"seconds={late}", check=False)
                        self.assertLess(time.monotonic() - begin, 4 * PATIENCE)
                        self.assertEqual(answer.returncode, 1, answer.stderr)
                        self.assertIn("A test failed on rank 0", answer.stderr)
                        self.assertEqual(job.run("GetNumberOfWorkers")["NumberOfWorkers"], ranks)
                    self.stop(job)

    def test_some_ranks_end_the_job(self):
        rows = [(2, [0], 0), (2, [1], 1), (4, [2], 2), (4, [1, 2, 3], None), (7, [0], 0), (7, [6], 6)]
        for mpi in MPIS:
            for ranks, failing, first in rows:
                with self.subTest(mpi=mpi, ranks=ranks, failing=failing):
                    job = self.ready(mpi=mpi, ranks=ranks)
                    client = job.ctl_started(*INTERNAL, f"ranks={failing}".replace(" ", ""), "wait=true")
                    status = job.wait(15 * PATIENCE)
                    self.assertEqual(status, ERROR_STATUS, job.told())
                    told = re.search(r"Error: A test failed on rank (\d)\n", job.err())
                    self.assertIn(int(told[1]), failing if first is None else [first])
                    self.assertRegex(job.err(), r"\n  .*fail.* at .*OrvexTestModule\.cpp:\d+")
                    client.wait(5 * PATIENCE)
                    self.assertIn(f"A test failed on rank {told[1]}", client.said())
                    self.nothing_left()

    def test_a_rank_that_comes_too_late_ends_the_job(self):
        job = self.ready(mpi=MPIS[0], ranks=2)
        job.ctl(*INTERNAL, "seconds=0.9", check=False)
        self.ends(job, 0, 15)

    def test_a_second_error_ends_the_job_at_once(self):
        job = self.ready(mpi=MPIS[0], ranks=2)
        job.ctl("TestFail", "kind=twice", "ranks=[1]", check=False)
        self.ends(job, 1, 15)

    def test_many_errors_leave_nothing_behind(self):
        job = self.ready(mpi=MPIS[0], ranks=2)
        job.ctl(*INTERNAL, check=False)
        before = [len(p.open_files()) for p in job.members().values()]
        script = "\n".join(["TestFail kind=internal"] * 100) + "\n"
        job.ctl("--keep-going", "--file", "-", stdin=script, check=False, limit=120)
        self.assertEqual([len(p.open_files()) for p in job.members().values()], before)
        self.stop(job)


if __name__ == "__main__":
    main()
