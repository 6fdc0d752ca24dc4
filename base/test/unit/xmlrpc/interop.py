"""Python's own client calls our server at PORT; then Python's own server serves one call of our client."""
import sys
import xmlrpc.client
from xmlrpc.server import SimpleXMLRPCServer

values = [1, -2**31, True, 1.5, "a<&>\u20ac\n", "  ", "", [1, [2, {}]], {"k": None, "b": xmlrpc.client.Binary(b"\0\1")},
          xmlrpc.client.DateTime("20260102T03:04:05"), 1e300, 1e-300, "x" * 200000]
url = f"http://127.0.0.1:{sys.argv[1]}"
client = xmlrpc.client.ServerProxy(url, headers=[("X-Orvex-Job", "5ec4e7")], allow_none=True)
assert client.Echo(*values) == values, client.Echo(*values)
assert xmlrpc.client.ServerProxy(url + "/RPC2?job=5ec4e7").Echo() == []
try:
    client.Fail()
    assert False
except xmlrpc.client.Fault as fault:
    assert (fault.faultCode, fault.faultString) == (-32500, "\\x01 \\xFF"), fault
try:
    xmlrpc.client.ServerProxy(url).Echo()
    assert False
except xmlrpc.client.ProtocolError as error:
    assert error.errcode == 403, error

server = SimpleXMLRPCServer(("127.0.0.1", 0), logRequests=False, allow_none=True)
server.timeout = 20
server.register_function(lambda *values: list(values), "Echo")
print(server.server_address[1], flush=True)
server.handle_request()
