"""The open port against those who don't belong there, and against clients that misbehave.

Each attack is refused or bounded with a message that says why; meanwhile a proper client is served and the
server's memory stays where it was. The limits one by one: base/test/unit/kernel/server/ServerLimitsTest.cpp.
"""
import json
import re
import time

from client import Client, Closed
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

    def logged(self, pattern):
        wait_until(lambda: re.search(pattern, self.job.err() + self.job.out()), 5 * PATIENCE,
                   lambda: f"'{pattern}' in the log: {self.job.err()[-2000:]}")

    def stranger(self):
        return Client(self.record, handshake=False)

    def test_without_the_key(self):
        stranger = self.stranger()
        stranger.key = bytes(32)
        self.assertIn("proof of the session key is wrong", json.dumps(stranger.authenticate()))
        with self.assertRaises(Closed):
            stranger.read(limit=15 * PATIENCE)
        stranger.close()
        self.logged("proof of the session key is wrong")

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
        self.logged("too long, beyond 4096 bytes")
        self.logged("too long, beyond 16777216 bytes")

    def test_broken_requests(self):
        """Of a client that proved its key: each fault is answered, and the connection goes on."""
        client = Client(self.record)
        deep = '{"a":' * 5000 + "1" + "}" * 5000
        for line in (b'{"jsonrpc":"2.0","id":7,"method":"GetHosts","params":{"a":"\xff\xfe"}}',
                     b'{"jsonrpc":"2.0","id":7,"method":"GetHosts","params":' + deep.encode() + b"}",
                     b'{"jsonrpc":"2.0","id":7,"method":"GetHosts","params":[1]}',
                     b'{"jsonrpc":"2.0","id":7,"method":5}', b'{"id":7,"method":"GetHosts"}',
                     b'[{"jsonrpc":"2.0","id":7,"method":"GetHosts"}]', b"[" * 100000, b"\x00", b"nonsense",
                     b'{"jsonrpc":"2.0","id":7,"method":"GetHosts"', b'{"jsonrpc":"2.0","id":{},"method":"GetHosts"}'):
            with self.subTest(line=line[:60]):
                client.send_raw(line + b"\n")
                answer = client.read_answer()
                self.assertIn("error", answer)
                self.assertTrue(answer["error"]["message"])
                self.assertEqual(client.call("GetNumberOfWorkers")["NumberOfWorkers"], 1)
        client.send_raw(b'{"jsonrpc":"2.0","id":1,"method":"GetNumb')
        client.close()

    def test_bad_arguments(self):
        """A refused command names what is wrong and what was expected."""
        for name, arguments, pattern in [
            ("GetHosst", {}, "GetHosts"),
            ("", {}, "method"),
            ("ListDir", {}, "path"),
            ("ListDir", {"path": 5}, "path"),
            ("CreateFile", {"path": "/nowhere/at/all"}, "Could not open file: /nowhere/at/all"),
            ("EnableIODebug", {"ioVerbosityLevel": -1}, "ioVerbosityLevel"),
            ("EnableIODebug", {"ioVerbosityLevel": 1e30}, "ioVerbosityLevel"),
            ("EnableIODebug", {"ioVerbosityLevel": 4294967295}, "ioVerbosityLevel"),
            ("EnableIODebug", {"ioVerbosityLevel": "x"}, "ioVerbosityLevel"),
        ]:
            with self.subTest(command=name, arguments=arguments):
                self.assertRegex(json.dumps(self.proper.request(name, arguments)["error"]["message"]), pattern)


if __name__ == "__main__":
    main()
