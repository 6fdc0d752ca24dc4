"""The open port against those who don't belong there, and against clients that misbehave.

Each attack is refused or bounded with a message that says why; meanwhile a proper client is served and the
server's memory stays where it was.
"""
import json
import os
import random
import re
import socket
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

    def refused(self, stranger):
        """The connection ends; the last message before that."""
        last = {}
        with self.assertRaises(Closed):
            for _ in range(20):
                last = stranger.read(limit=15 * PATIENCE)
        stranger.close()
        return json.dumps(last)

    def test_without_the_key(self):
        with self.subTest("wrong key"):
            stranger = self.stranger()
            stranger.key = bytes(32)
            self.assertIn("proof of the session key is wrong", json.dumps(stranger.authenticate()))
            self.refused(stranger)
            self.logged("proof of the session key is wrong")
        with self.subTest("no key"):
            stranger = self.stranger()
            stranger.send({"jsonrpc": "2.0", "id": 1, "method": "GetNumberOfWorkers", "params": {}})
            self.assertIn("must be proved first", self.refused(stranger))
            self.logged("must be proved first")
        with self.subTest("a proof seen before"):
            honest = Client(self.record)
            stranger = self.stranger()
            self.assertIn("proof of the session key is wrong", json.dumps(stranger.authenticate(**honest.said)))
            honest.close()
            self.refused(stranger)
        with self.subTest("a proof for other rights"):
            stranger = self.stranger()
            stranger.nonce = "00" * 32
            proof = stranger.proof("orvex client control")
            self.assertIn("error", stranger.request("server.authenticate", {
                "protocol": 1, "product": "x", "client": "x", "access": "commands", "nonce": stranger.nonce,
                "proof": proof}))
            self.refused(stranger)
        with self.subTest("another protocol version"):
            stranger = self.stranger()
            self.assertRegex(json.dumps(stranger.authenticate(protocol=999)),
                             "speaks protocol 1, the client .* speaks protocol 999")
            self.refused(stranger)

    def test_no_protocol_at_all(self):
        generator = random.Random(47827)
        for size in (1, 100, 5000, MIB):
            with self.subTest(random_bytes=size):
                stranger = self.stranger()
                stranger.send_raw(generator.randbytes(size) + b"\n", tolerant=True)
                self.refused(stranger)
                self.served()
        stranger = self.stranger()
        stranger.send_raw(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", tolerant=True)
        self.refused(stranger)

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

    def test_many_that_say_nothing(self):
        strangers = []
        try:
            for _ in range(500):
                strangers.append(socket.create_connection((self.record["address"], self.record["port"]), timeout=10))
            self.served()
            self.assertLess(len(os.listdir(f"/proc/{self.job.process.pid}/fd")), 200)
            Client(self.record).close()

            def all_closed():
                for stranger in list(strangers):
                    stranger.settimeout(0.001)
                    try:
                        while stranger.recv(65536):
                            pass
                        strangers.remove(stranger)
                        stranger.close()
                    except TimeoutError:
                        pass
                    except OSError:
                        strangers.remove(stranger)
                        stranger.close()
                return not strangers

            wait_until(all_closed, 30 * PATIENCE, lambda: f"cut off: {len(strangers)} remain")
        finally:
            for stranger in strangers:
                stranger.close()

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

    def test_a_reader_that_stops(self):
        """It loses console lines; the job doesn't wait for it."""
        lazy = Client(self.record)
        for _ in range(40):
            self.proper.call("TestPrint", {"lines": 5000})
        self.served()
        lazy.close()

    def test_requests_without_reading(self):
        """10,000 requests, then the answers: none is lost, and the others were served meanwhile."""
        eager = Client(self.record)
        total, sent, got = 10000, 0, []
        lines = b"".join(json.dumps({"jsonrpc": "2.0", "id": i, "method": "GetNumberOfWorkers", "params": {}}).encode()
                         + b"\n" for i in range(total))
        end = time.monotonic() + 5
        eager.socket.setblocking(False)
        while sent < len(lines) and time.monotonic() < end:
            try:
                sent += eager.socket.send(lines[sent:sent + 65536])
            except BlockingIOError:
                time.sleep(0.05)
                self.served()
        eager.socket.setblocking(True)
        eager.send_while_reading(lines[sent:], lambda answer: got.append(answer["id"]), total, 60 * PATIENCE)
        self.assertEqual(got, list(range(total)))
        eager.close()


class Load(Case):
    def test_many_commands_of_two_clients(self):
        """20,000 in all, several on the way at any time: answered in order, memory flat."""
        job = self.ready("-collab")
        record = job.record()
        clients = [Client(record) for _ in range(2)]
        server = Process(job.process.pid)
        memory, window, total = [], 20, 10000
        asked = [0, 0]
        answered = [0, 0]
        while min(answered) < total:
            for i, client in enumerate(clients):
                batch = b""
                while asked[i] < total and asked[i] - answered[i] < window:
                    batch += json.dumps({"jsonrpc": "2.0", "id": asked[i], "method": "GetUserName",
                                         "params": {}}).encode() + b"\n"
                    asked[i] += 1
                if batch:
                    client.send_raw(batch)
                if answered[i] < total:
                    answer = client.read_answer()
                    self.assertEqual(answer["id"], answered[i])
                    self.assertIn("username", answer["result"])
                    answered[i] += 1
                    if answered[i] % 2000 == 0:
                        memory.append(server.memory())
        for client in clients:
            client.close()
        self.assertLess(memory[-1] - memory[1], 4 * MIB * PATIENCE, memory)
        self.stop(job)


if __name__ == "__main__":
    main()
