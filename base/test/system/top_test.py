"""orvexctl top: what a user sees of a job at work, as text, for programs and on a terminal."""
import json
import pathlib
import shutil
import signal
import subprocess
import unittest

from harness import CLIENT, MPIS, PATIENCE, Case, main, record_of, wait_until
from cluster import Cluster, is_possible

MODULE = ("-module", "OrvexTestModule")
SLOW = 2  # the rank for which the others wait
WORK = ("TestFail", "ranks=[99]", "wait=true", f"busy={SLOW}", "seconds=1000")
SIZES = ((80, 24), (200, 60))


class Screen:
    """A terminal of its own with a shell in it."""

    def __init__(self, room, mpi, columns, rows):
        self.room, self.mpi, self.columns = room, mpi, columns
        self.run("new-session", "-d", "-x", columns, "-y", rows, "sh")

    def run(self, *words):
        command = ["tmux", "-S", str(self.room.top / f"terminal-{self.columns}-{self.mpi}"), "-f", "/dev/null", *map(str, words)]
        environment = self.room.environment(LC_ALL="C.UTF-8", PS1="$ ")
        return subprocess.run(command, capture_output=True, text=True, check=True, env=environment,
                              cwd=self.room.work, timeout=20).stdout

    def text(self):
        return self.run("capture-pane", "-p")

    def press(self, *keys):
        self.run("send-keys", *keys)

    def shows(self, *texts):
        """The picture, when it holds all of them."""
        def look():
            picture = self.text()
            return picture if all(text in picture for text in texts) else None
        return wait_until(look, 15 * PATIENCE, lambda: f"{texts} in\n{self.text()}")


class Top(Case):
    def frames(self, job, *words):
        return [json.loads(line) for line in job.ctl("--json", "top", *words).stdout.splitlines()]

    def working(self, job):
        """The job with its command at work, as the others wait for one rank."""
        client = job.ctl_started(*WORK)
        wait_until(lambda: self.frames(job)[0].get("slowest", {}).get("rank") == SLOW, 20 * PATIENCE,
                   lambda: f"the slow rank is named in {self.frames(job)}")
        return client

    def end(self, job, client):
        job.ctl("abort")
        job.wait()
        client.wait(10 * PATIENCE)

    def check_frames(self, job):
        frames = self.frames(job, "-n", "2", "--seconds", "0.5", "--ranks")
        self.assertEqual(len(frames), 2)
        frame, host = frames[1], frames[1]["hosts"][0]
        self.assertEqual(frame["running"]["command"], "TestFail")
        self.assertEqual(host["command"], "TestFail")
        self.assertGreater(frame["slowest"]["othersWaitShare"], 0.5)
        self.assertEqual([(rank["rank"], rank["state"]) for rank in host["list"]],
                         [(rank, "computes" if rank == SLOW else "waits") for rank in range(4)])
        self.assertEqual(host["operations"], {"synchronise": 3, "outside": 1})
        self.assertGreaterEqual(host["seconds"], 0.45)
        self.assertGreater(host["waiting"]["max"], 0.5)
        self.assertEqual(host["waiting"]["minRank"], SLOW)

    def check_text(self, job):
        text = job.ctl("top", "-n", "1", "--ranks", "--sort", "n").stdout
        self.assertNotIn("\x1b", text)
        self.assertRegex(text, rf"\n\* rank {SLOW} on \S+ waits \d+ %, the others \d+ %; \+ rank \d on ")
        self.assertRegex(text, rf"\n\*[ +] +{SLOW} \S+ .* computes ")
        wrong = job.ctl("top", "--seconds", "0", check=False)
        self.assertEqual((wrong.returncode, wrong.stdout), (2, ""))

    def check_screen(self, job, columns, rows):
        screen = Screen(self.room, job.mpi, columns, rows)
        record = record_of(job.members()[0])
        screen.press(f"clear; stty -a > before; '{CLIENT}' --key-file '{record}' top; stty -a > after; echo end=$?",
                     "Enter")
        picture = screen.shows(f"* rank {SLOW} on ", "HOST ", "q quit")
        self.assertLessEqual(max(map(len, picture.splitlines())), columns)
        self.assertEqual("MAXMEM" in picture, columns >= 120)
        self.assertEqual(len(picture.splitlines()), rows)
        screen.press("r")
        screen.shows("STATE", "computes", "synchronise")
        screen.press("M", "R")
        screen.shows("sort (M, reversed)")
        screen.press("h")
        screen.shows("any key: back")
        screen.press("x", "p")
        screen.shows("paused")
        screen.press("q")
        screen.shows("end=0")
        self.assertNotIn("q quit", screen.text())
        folder = pathlib.Path(self.room.work)
        self.assertEqual((folder / "before").read_text(), (folder / "after").read_text())
        screen.run("kill-server")

    def test_shows_a_job_at_work(self):
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                job = self.ready(*MODULE, mpi=mpi, ranks=4)
                self.assertIn("\nno command\n", job.ctl("top").stdout)
                client = self.working(job)
                self.check_frames(job)
                self.check_text(job)
                if shutil.which("tmux"):
                    for columns, rows in SIZES:
                        self.check_screen(job, columns, rows)
                job.members()[3].kill(signal.SIGSTOP)
                self.assertEqual(self.frames(job)[0]["hosts"][0]["states"], {"computes": 1, "waits": 2, "stopped": 1})
                job.members()[3].kill(signal.SIGCONT)
                self.end(job, client)

    def test_shows_a_serial_server_and_tells_why_not(self):
        job = self.ready(*MODULE)
        client = job.ctl_started("TestWait", "seconds=1000")
        wait_until(lambda: self.frames(job)[0]["total"]["command"] == "TestWait", 10 * PATIENCE,
                   lambda: f"the command in {self.frames(job)}")
        self.end(job, client)
        job = self.ready("-nothreads")
        refused = job.ctl("top", check=False)
        self.assertEqual(refused.returncode, 1, refused.stdout)
        self.assertIn("\nThis server can't tell what its ranks do: it has no error channel, as with -nothreads\n", refused.stdout)
        job.stop()

    @unittest.skipUnless(is_possible(), "needs root, and a kernel that lets it make hosts")
    def test_shows_hosts(self):
        cluster = self.enterContext(Cluster(2))
        job = self.ready(*MODULE, mpi=MPIS[0], slots=[2, 2], cluster=cluster)
        client = self.working(job)
        frame = self.frames(job, "-n", "2")[1]
        self.assertEqual([(host["name"], host["ranks"]) for host in frame["hosts"]], [("node0", 2), ("node1", 2)])
        self.assertEqual((frame["slowest"]["host"], frame["total"]["ranks"]), ("node1", 4))
        one = self.frames(job, "--ranks")[0]["hosts"][1]
        self.assertEqual([rank["rank"] for rank in one["list"]], [2, 3])
        members = job.members()
        members[2].kill(signal.SIGSTOP)
        self.assertEqual(self.frames(job)[0]["hosts"][1]["states"], {"waits": 1, "stopped": 1}, "its neighbour tells")
        members[3].kill(signal.SIGSTOP)
        self.assertEqual(self.frames(job)[0]["hosts"][1]["silence"], "it doesn't answer")
        self.assertIn("\n! node1 ", job.ctl("top").stdout)
        for rank in (2, 3):
            members[rank].kill(signal.SIGCONT)
        self.end(job, client)


if __name__ == "__main__":
    main()
