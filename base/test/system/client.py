"""A client of the server's port, written from the description of the protocol in docs/PROTOCOL.md alone."""
import hashlib
import hmac
import json
import os
import socket
import time

PROTOCOL = 1


class Closed(Exception):
    """The server ended the connection."""


class Client:
    def __init__(self, record, handshake=True, client="system test"):
        self.record, self.name = record, client
        self.key = bytes.fromhex(record["key"])
        self.socket = socket.create_connection((record["address"], record["port"]), timeout=10)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._received = b""
        self._number = 0
        self.notifications = []
        self.hello = self.read()["params"]
        if handshake:
            answer = self.authenticate()
            if "error" in answer:
                raise Closed(answer["error"]["message"])
            assert hmac.compare_digest(answer["result"]["proof"], self.proof("orvex server")), "the server's proof"

    def proof(self, role):
        text = self.hello["nonce"] + self.nonce + role
        return hmac.new(self.key, text.encode(), hashlib.sha256).hexdigest()

    def authenticate(self, access="commands", **changes):
        """Proves the key, with `changes` to what an honest client says; the server's answer."""
        self.nonce = os.urandom(32).hex()
        self.said = {"protocol": PROTOCOL, "product": "system test", "client": self.name, "access": access,
                     "nonce": self.nonce, "proof": self.proof(f"orvex client {access}"), **changes}
        return self.request("server.authenticate", self.said)

    def send_raw(self, data):
        self.socket.sendall(data)

    def send(self, message):
        self.send_raw(json.dumps(message).encode() + b"\n")

    def read(self, limit=20):
        """The next message."""
        end = time.monotonic() + limit
        while b"\n" not in self._received:
            self.socket.settimeout(max(0.001, end - time.monotonic()))
            try:
                data = self.socket.recv(1 << 18)
            except ConnectionError as error:
                raise Closed(str(error)) from None
            if not data:
                raise Closed("end of stream")
            self._received += data
        line, _, self._received = self._received.partition(b"\n")
        return json.loads(line)

    def read_answer(self, limit=20):
        """The next message that isn't a notification."""
        while "method" in (message := self.read(limit)):
            self.notifications.append(message)
        return message

    def request(self, method, params=None, limit=20):
        self._number += 1
        self.send({"jsonrpc": "2.0", "id": self._number, "method": method, "params": params or {}})
        answer = self.read_answer(limit)
        assert answer["id"] == self._number, answer
        return answer

    def call(self, method, params=None, limit=20):
        answer = self.request(method, params, limit)
        assert "result" in answer, answer
        return answer["result"]

    def send_endlessly(self, chunk, total, limit):
        """Sends up to `total` bytes while the server takes them; how many it took."""
        sent, end = 0, time.monotonic() + limit
        self.socket.settimeout(2)
        while sent < total and time.monotonic() < end:
            try:
                sent += self.socket.send(chunk)
            except OSError:
                break
        return sent

    def close(self):
        self.socket.close()
