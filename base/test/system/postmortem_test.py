"""Ranks leave a profile when they die, and orvexctl tells of it."""
import json
import pathlib
import signal
import subprocess

from harness import CLIENT, MPIS, PATIENCE, Case, main, wait_until

FOLDER = pathlib.Path("/dev/shm")


class Postmortem(Case):
    def ctl(self, *words, check=True):
        answer = subprocess.run([str(CLIENT), *map(str, words)], capture_output=True, text=True, timeout=20 * PATIENCE,
                                stdin=subprocess.DEVNULL, env=self.room.environment(TZ="UTC"))
        if check:
            self.assertEqual(answer.returncode, 0, answer.stderr)
        return answer

    def files(self, processes):
        return sorted(path.name for process in processes
                      for path in FOLDER.glob(f"orvex-profile-*-{process.own_pid()}-*"))

    def hung(self, **more):
        """A job of four whose ranks wait for rank 1."""
        job = self.ready("-module", "OrvexTestModule", "-module", "OrvexMistakesModule", ranks=4, **more)
        job.ctl_started("MakeMistake", "kind=deadlock")
        wait_until(lambda: "Ranks 0,2-3 wait in allReduce" in job.ctl("where").stdout, 20 * PATIENCE, job.told)
        return job

    def test_tells_what_dead_ranks_did(self):
        for mpi, victims in zip(MPIS, ([1], [0, 1, 2, 3])):
            with self.subTest(mpi=mpi, victims=victims):
                job = self.hung(mpi=mpi)
                members = job.members()
                number = members[0].own_pid()
                for rank in victims:
                    members[rank].kill(signal.SIGKILL)
                job.wait()
                # The system may need a moment for the memory of a process that was killed.
                wait_until(lambda: "4 of 4 died" in self.ctl("postmortem").stdout, 10 * PATIENCE, job.told)
                self.assertIn(f"{number}  ", self.ctl("postmortem").stdout)
                self.assertRegex(self.ctl("list-sessions").stderr, r"dead jobs? left a profile here: orvexctl postmortem")
                text = self.ctl("postmortem", number).stdout
                for line in ("4 ranks; 4 profiles here", "Ranks 0,2-3 (3 ranks) died in allReduce, on global, 4 ranks",
                             "Rank 1 died outside of messages, after ", "in the command MakeMistake, since ",
                             "Most ranks waited in allReduce. Rank 1 was not in it.", "  command      began "):
                    self.assertIn(line, text)
                rank = json.loads(self.ctl("--json", "postmortem", number, "--rank", 2).stdout)
                self.assertEqual(("died", True, "allReduce", "MakeMistake"), (rank["state"], rank["operations"][0]["open"],
                                 rank["operations"][0]["name"], rank["commands"][0]["name"]))
                self.assertRegex(self.ctl("postmortem", number, "--rank", 2).stdout, r"allReduce +global, 4 ranks .* open\n")
                self.assertEqual(self.ctl("postmortem", number, "--rank", 4, check=False).returncode, 1)
                self.assertEqual(self.ctl("postmortem", number, "--remove").stdout, "Removed the profiles of 4 ranks.\n")
                self.assertEqual(self.ctl("postmortem", number, check=False).returncode, 1)

    def test_an_end_in_order_leaves_nothing(self):
        job = self.ready(mpi=MPIS[-1], ranks=2)
        members = list(job.members().values())
        names = self.files(members)
        self.assertEqual(len(names), 2)
        number = job.members()[0].own_pid()
        self.assertEqual(self.ctl("postmortem", number, check=False).returncode, 1)  # it lives
        self.stop(job)
        self.assertEqual([name for name in names if (FOLDER / name).exists()], [])


if __name__ == "__main__":
    main()
