"""Installs the build, builds the examples against the package as a stranger would, and runs them."""
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))
import harness  # noqa: E402
from harness import DRIVERS, LAUNCHERS, MPIS, Case, main  # noqa: E402


def value(x):
    """The value that the example has to find between the rows of the table below, in its order of operations."""
    rows = [(0.0, 1.0), (0.25, 2.0), (0.5, 0.0), (1.0, 4.0)]
    row = next(i for i in range(1, 4) if rows[i][0] >= x)
    (x0, y0), (x1, y1) = rows[row - 1], rows[row]
    return y0 + (x - x0) / (x1 - x0) * (y1 - y0)


class Consumer(Case):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="orvex-install-")
        cls.addClassCleanup(folder.cleanup)
        cls.top = pathlib.Path(folder.name)
        cls.must("cmake", "--install", harness.BUILD, "--prefix", cls.top / "installed")
        # The installed package may move: nothing in it depends on the place or on the build.
        cls.prefix = (cls.top / "installed").rename(cls.top / "moved")
        cls.must("cmake", "-S", pathlib.Path(os.environ["ORVEX_SOURCE_DIR"]) / "examples", "-B", cls.top / "build",
                 "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={cls.prefix}", "-DCMAKE_BUILD_TYPE=Release",
                 f"-DCMAKE_CXX_COMPILER={os.environ['ORVEX_COMPILER']}", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
        cls.must("cmake", "--build", cls.top / "build")
        harness.SERVER = cls.prefix / "bin/orvexsim"
        harness.CLIENT = cls.prefix / "bin/orvexctl"

    @staticmethod
    def must(*words, **more):
        answer = subprocess.run([str(word) for word in words], capture_output=True, text=True, timeout=200,
                                stdin=subprocess.DEVNULL, **more)
        if answer.returncode:
            raise AssertionError(f"{words}: {answer.returncode}\n{answer.stdout[-4000:]}{answer.stderr[-4000:]}")
        return answer.stdout

    def test_program(self):
        program = self.top / "build/heat_rod"
        for launcher, words, ranks in [([], ["-s"], 1)] + [
                ([*LAUNCHERS[mpi], "3"], ["-mpi", DRIVERS[mpi]], 3) for mpi in MPIS]:
            with self.subTest(words=words):
                text = self.must(*launcher, program, *words, env=self.room.environment(), cwd=self.room.work)
                self.assertRegex(text, rf"(?m)^{ranks} ranks, \d+ sweeps, largest error ")

    def test_hybrid(self):
        for launcher, words, ranks in [([], ["-s"], 1)] + [
                ([*LAUNCHERS[mpi], "2"], ["-mpi", DRIVERS[mpi]], 2) for mpi in MPIS]:
            with self.subTest(words=words):
                text = self.must(*launcher, self.top / "build/hybrid_sum", *words, env=self.room.environment(),
                                 cwd=self.room.work)
                self.assertIn(f"pi = 3.14159 with {ranks} threads on each of 1 processes\n", text)

    def test_files(self):
        table = self.room.work / "table.txt"
        table.write_text("1001\n0 1\n0.25 2\n0.5 0\n1 4\n")
        expected = b"".join(struct.pack("d", value(i / 1000)) for i in range(1001))
        for mpi in MPIS:
            for ranks in ("1", "3"):
                with self.subTest(mpi=mpi, ranks=ranks):
                    field = self.room.work / f"field-{mpi}-{ranks}"
                    text = self.must(*LAUNCHERS[mpi], ranks, self.top / "build/field_file", table, field, "-mpi",
                                     DRIVERS[mpi], env=self.room.environment(), cwd=self.room.work)
                    self.assertIn(f"{ranks} ranks wrote 1001 points\n", text)
                    self.assertEqual(field.read_bytes(), expected)

    @unittest.skipIf(os.geteuid() != 0, "needs root, to make a small disk")
    def test_full_disk(self):
        table = self.room.work / "table.txt"
        table.write_text("20000\n0 1\n1 2\n")
        small = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs -o size=64k none tmp && exec "$@"', "sh"]
        (self.room.work / "tmp").mkdir()
        for mpi in MPIS:
            with self.subTest(mpi=mpi):
                answer = subprocess.run(
                    [*small, *LAUNCHERS[mpi], "3", self.top / "build/field_file", table, "tmp/gr\u00f6\u00dfe.bin", "-mpi",
                     DRIVERS[mpi]], env=self.room.environment(), cwd=self.room.work, capture_output=True, text=True,
                    timeout=100, stdin=subprocess.DEVNULL)
                self.assertNotEqual(answer.returncode, 0)
                self.assertRegex(answer.stderr, "field_file: can't write tmp/gr\u00f6\u00dfe.bin: .*Possibly out of disk space")

    def test_module(self):
        job = self.ready("-module", self.top / "build/libExampleSolver.so", mpi=MPIS[0], ranks=3)
        answer = job.run("ComputePi", "intervals=100000")
        self.assertAlmostEqual(answer["pi"], 3.14159265, places=7)
        self.assertEqual(answer["ranks"], 3)
        self.stop(job)

    def test_parallel_hdf5(self):
        modules = {mpi: self.top / f"build/libParallelHdf5-{mpi}.so" for mpi in MPIS}
        modules = {mpi: path for mpi, path in modules.items() if path.exists()}
        if not modules:
            self.skipTest("no parallel HDF5 is installed")
        for mpi in MPIS:
            for built_with, module in modules.items():
                with self.subTest(mpi=mpi, built_with=built_with):
                    job = self.ready("-module", module, mpi=mpi, ranks=3)
                    words = ["StoreInHdf5", f"path=field-{mpi}.h5", "points=1000"]
                    if mpi == built_with:
                        self.assertTrue(job.run(*words)["equal"])
                        field = struct.pack("<1000d", *(i / 2 for i in range(1000)))
                        self.assertIn(field, (self.room.work / f"field-{mpi}.h5").read_bytes())
                    else:
                        self.assertIn(", but the job runs with ", job.ctl(*words, check=False).stderr)
                    self.stop(job)


if __name__ == "__main__":
    main()
