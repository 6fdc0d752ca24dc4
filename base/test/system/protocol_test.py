"""docs/PROTOCOL.md against the wire: each key that stands there is sent, and no other one."""
import pathlib
import re
import socket

from client import Client, Closed
from harness import PATIENCE, Case, main

PAGE = (pathlib.Path(__file__).resolve().parents[3] / "docs/PROTOCOL.md").read_text()


def words(text):
    """The words that stand there as code, without texts and values."""
    return [word for word in re.findall(r"`([^`]+)`", text) if re.fullmatch(r"[\w.]+", word)]


def table(head):
    """The rows of the table with this head: the words of the first column, and the rest."""
    rows = PAGE[PAGE.index(head):].split("\n\n")[0].splitlines()[2:]
    return [(words(row.split("|")[1]), row.split("|", 2)[2]) for row in rows]


def keys(rows):
    return sorted(word for first, _ in rows for word in first)


class Protocol(Case):
    def test_each_key(self):
        job = self.ready("-module", "OrvexTestModule", "-module", "OrvexParallelSandbox")
        record = job.record()
        self.assertEqual(sorted(record), keys(table("| key | meaning |")))
        client = Client(record, handshake=False)
        admitted = client.authenticate()["result"]
        self.assertEqual(sorted(client.said), keys(table("   | key | value |")))
        self.assertEqual(sorted(admitted), sorted(set(words(re.search(r"The server's result holds .*?\.", PAGE, re.S)[0]))))
        boss = Client(record, handshake=False)
        boss.authenticate("control")

        methods = table("| method of the server itself | result |")
        for (method,), _ in methods[:4]:
            self.assertIn("result", boss.request(method), method)
        self.assertEqual(boss.request("server.nothing")["error"]["code"], -32601)

        self.assertEqual(sorted(client.call("ListDir", {"path": "/"})), ["Command", "Success", "dirs", "files"])
        self.assertIn('"result":{"Command":"ListDir","Success":true,"dirs":["mesh"],"files":["a.sim"]}', PAGE)
        for real in ("nan", "inf", "-inf"):
            self.assertIn('`{"$real":"%s"}`' % real, PAGE)
            said = client.request("SolveHeatConduction", {"source": {"$real": real}})["error"]["message"]
            self.assertIn(f"finite, but it is {real}", said)

        def ask(method, params):
            client.send({"jsonrpc": "2.0", "id": "x", "method": method, "params": params})

        client.call("server.deadline", {"seconds": 1000})
        ask("SolveHeatConduction", {"nx": 600, "ny": 600, "tolerance": 1e-14, "maxIterations": 100000000})
        while "running" not in (status := boss.call("server.status")) or "task" not in status["running"]:
            pass
        rows = table("| key | meaning |\n|---|---|\n| `name`, `host`, `address`")
        self.assertEqual(sorted(status), keys(rows))
        self.assertEqual(status["mode"], admitted["mode"])
        meaning = dict((first[0], rest) for first, rest in rows)
        self.assertEqual(sorted(status["running"]), sorted(words(meaning["running"])))
        self.assertEqual(sorted(status["clients"][0]), sorted(words(meaning["clients"])))
        client.socket.shutdown(socket.SHUT_WR)
        stopped = boss.call("server.stop")
        self.assertEqual(set(stopped) - set(status), {"endedBy"})
        self.assertTrue(boss.call("server.cancel")["cancelled"])
        with self.assertRaises(Closed):
            while True:
                client.notifications.append(client.read(20 * PATIENCE))
        told = {message["method"]: message["params"] for message in client.notifications if "method" in message}
        notices = table("| method | params |")
        for (method,), rest in notices:
            if method in told:
                self.assertEqual(sorted(told[method]), sorted(words(rest)), method)
        self.assertEqual(set(keys(notices)) - set(told), {"server.consoleLost", "server.notice", "server.abort"})
        self.assertEqual(set(told) - set(keys(notices)), set())
        self.assertEqual(job.wait(), 0)


if __name__ == "__main__":
    main()
