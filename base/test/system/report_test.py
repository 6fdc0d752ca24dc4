"""The page of orvexctl report, opened in a browser that has no network."""
import importlib.machinery
import json
import pathlib
import subprocess
import tempfile
import unittest

import browser
from harness import CLIENT, PATIENCE, main

BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench/report-bench"
report_bench = importlib.machinery.SourceFileLoader("report_bench", str(BENCH)).load_module()

EVIL = "</script><script>console.log(1)</script><img src=http://127.0.0.1:1/x>\"'" + "x" * 300


def evil(profile):
    """The same profile with a name that attacks the page in place of each name."""
    profile["session"] = profile["mpi"] = EVIL
    for part in (profile["hosts"], profile["events"]["list"], profile["messages"]["operations"]):
        for i, each in enumerate(part):
            each["name"] = EVIL + str(i)
    for bill in profile["bills"]:
        bill["command"] = bill["client"] = EVIL
    return profile


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not browser.PROGRAM:
            raise unittest.SkipTest("chromium isn't installed; tools/install-dependencies check brings it")
        cls.browser = cls.enterClassContext(browser.Browser(60 * PATIENCE))
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))

    def make(self, profile, name="report"):
        source, page = self.folder / f"{name}.json", self.folder / f"{name}.html"
        source.write_text(json.dumps(profile))
        told = subprocess.run([CLIENT, "report", "--from", source, "--output", page], check=True, capture_output=True, text=True)
        self.assertEqual(told.stdout, f"The report is in {page}\n")
        return page

    def check(self, page):
        """No message in the console, no request but that for the page, and nothing wider than the window."""
        for width in (1400, 390):
            for dark in (False, True):
                self.browser.open(page, width, dark)
                self.assertEqual(self.browser.messages, [])
                self.assertEqual(self.browser.requests, [page.resolve().as_uri()])
                self.assertLessEqual(self.browser.run("document.documentElement.scrollWidth"), width)
                back = self.browser.run("getComputedStyle(document.body).backgroundColor")
                self.assertEqual(back == "rgb(255, 255, 255)", not dark)
        pdf = self.browser.print()
        self.assertTrue(pdf.startswith(b"%PDF"))
        self.assertGreater(len(pdf), 20000)

    def test_small_and_large_jobs(self):
        for ranks, hosts in ((1, 1), (4, 1), (64, 4), (2000, 100)):
            with self.subTest(ranks=ranks):
                self.check(self.make(report_bench.make_profile(ranks, hosts, 12)))

    def test_little_is_known(self):
        self.check(self.make({"format": "orvex-profile", "version": 1, "ranks": 3}))

    def test_names_that_attack(self):
        page = self.make(evil(report_bench.make_profile(8, 2, 6)))
        self.check(page)
        self.assertEqual(self.browser.run("document.images.length"), 0)

    def test_no_other_script_runs(self):
        page = self.make(report_bench.make_profile(4, 1, 6), "changed")
        page.write_text(page.read_text().replace("</main>", "<script>window.ran = 1</script><img src='http://127.0.0.1:1/'></main>"))
        self.browser.open(page)
        self.assertEqual(self.browser.run("window.ran"), None)
        self.assertTrue(any("Content Security Policy" in each for each in self.browser.messages))

    def test_sorts_searches_zooms_and_tells(self):
        self.browser.open(self.make(report_bench.make_profile(64, 4, 12)))
        run = self.browser.run
        column = "[...document.querySelectorAll('#events tbody tr')].map(row => +row.cells[4].dataset.v)"
        for order in (lambda values: sorted(values, reverse=True), sorted):
            run("document.querySelectorAll('#events thead th')[4].click()")
            self.assertEqual(run(column), order(run(column)))
        run("const field = document.querySelector('.tools input'); field.value = 'assemble'; field.dispatchEvent(new Event('input'))")
        self.assertEqual(run("document.querySelectorAll('.frame.found').length"), 1)
        run("document.querySelector('.frame.found').dispatchEvent(new Event('click'))")
        self.assertEqual(run("document.querySelector('.frame.found rect').width.baseVal.value"), 1160)
        told = run("(() => { const cells = document.querySelector('[data-heat=heatEvents]'), box = cells.getBoundingClientRect();"
                   "cells.dispatchEvent(new PointerEvent('pointermove', {bubbles: true, clientX: box.left + box.width * 13.5 / 64,"
                   "clientY: box.top + 3})); return document.getElementById('tip').textContent; })()")
        self.assertRegex(told, r"^Assembly::assemble\nrank 13\nmax [0-9.]+ s$")


if __name__ == "__main__":
    main()
