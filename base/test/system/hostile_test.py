"""The open port against those who don't belong there, and against clients that misbehave.

Each attack is refused or bounded with a message that says why; meanwhile a proper client is served and the
server's memory stays where it was. The limits one by one: base/test/unit/kernel/server/ServerLimitsTest.cpp.
"""
import time

from client import Client
from harness import PATIENCE, Case, Process, main, wait_until

MIB, GIB = 1 << 20, 1 << 30
MEMORY_LIMIT = 96 * MIB * PATIENCE  # growth that attacks may cause: buffers of their own limits, and the allocator's


class Hostile(Case):
    def setUp(self):
        super().setUp()
        self.job = self.ready("-collab", "-module", "OrvexTestModule")
        self.record = self.job.record()
        self.proper = Client(self.record, client="a proper client")
        self.addCleanup(self.proper.close)
        self.before = Process(self.job.process.pid).memory()

    def tearDown(self):
        self.served()
        growth = Process(self.job.process.pid).memory() - self.before
        self.assertLess(growth, MEMORY_LIMIT)
        self.proper.close()
        self.stop(self.job)

    def served(self):
        """A proper client gets its answer at once."""
        began = time.monotonic()
        self.assertEqual(self.proper.call("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        self.assertLess(time.monotonic() - began, 2 * PATIENCE)

    def test_an_endless_line(self):
        """Of a line without end the server keeps what its limit allows, and cuts the sender off in seconds."""
        for handshake in (False, True):
            with self.subTest(handshake=handshake):
                stranger = Client(self.record, handshake=handshake)
                began = time.monotonic()
                sent = stranger.send_endlessly(b"x" * MIB, 16 * GIB, limit=20 * PATIENCE)
                self.assertLess(sent, 16 * GIB)
                self.assertLess(time.monotonic() - began, 10 * PATIENCE)
                self.assertLess(Process(self.job.process.pid).memory() - self.before, MEMORY_LIMIT)
                self.served()
                stranger.close()
                limit = 16777216 if handshake else 4096
                wait_until(lambda: f"too long, beyond {limit} bytes" in self.job.err(), 5 * PATIENCE, self.job.told)

    def test_broken_requests(self):
        """Of a client that proved its key: each fault is answered, and the connection goes on."""
        client = Client(self.record)
        for line in (b'{"jsonrpc":"2.0","id":7,"method":"GetHosts","params":' + b'{"a":' * 5000 + b"1" + b"}" * 5001,
                     b'{"jsonrpc":"2.0","id":7,"method":5}', b"[" * 100000, b"\x00", b"\xff\xfe"):
            with self.subTest(line=line[:60]):
                client.send_raw(line + b"\n")
                self.assertTrue(client.read_answer()["error"]["message"])
                self.assertEqual(client.call("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        client.close()


if __name__ == "__main__":
    main()
