"""The login server of a host made of namespaces, and the program that calls it.

    remote.py --serve FOLDER HOST         the host's first process: starts programs on request, collects ended ones
    remote.py --on FOLDER HOST WORD...    runs a program there, with this process's streams, folder and environment
    remote.py --shell FOLDER [-x]... HOST WORD...   the same in the form of a remote shell: the words are one line for sh
"""
import contextlib
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys

LIMIT = 1 << 20  # [bytes] of a request


def receive_request(connection):
    """Returns the request and the standard streams for its program."""
    data, streams, _, _ = socket.recv_fds(connection, LIMIT, 3)
    while not data.endswith(b"\n") and (part := connection.recv(LIMIT)):
        data += part
    return json.loads(data), streams


def attend(connection):
    """Serves one login, in a process of its own: ends the program when its caller ends, and sends the exit value."""
    request, streams = receive_request(connection)
    program = subprocess.Popen(request["words"], cwd=request["folder"], env=request["environment"], stdin=streams[0],
                               stdout=streams[1], stderr=streams[2], start_new_session=True)
    for stream in streams:
        os.close(stream)
    if os.fork() == 0:  # this child watches the caller
        if not connection.recv(1):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(program.pid, signal.SIGTERM)
        os._exit(0)
    value = program.wait()
    with contextlib.suppress(OSError):  # the caller may have gone
        connection.sendall(b"%d\n" % (value if value >= 0 else 128 - value))
        connection.shutdown(socket.SHUT_RDWR)


def serve(folder, host):
    socket.sethostname(host)
    subprocess.run(["mount", "--bind", str(folder / "hosts"), "/etc/hosts"], check=True)
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(str(folder / f"{host}.socket"))
    listener.listen(64)
    (folder / f"{host}.pid").write_text(str(os.getpid()))
    while True:
        connection, _ = listener.accept()
        if os.fork() == 0:
            listener.close()
            signal.signal(signal.SIGCHLD, signal.SIG_DFL)
            try:
                attend(connection)
            except OSError as error:
                print(f"{host}: {error}", file=sys.stderr)
                os._exit(1)
            os._exit(0)
        connection.close()


def call(folder, host, words):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.connect(str(folder / f"{host}.socket"))
        environment = dict(os.environ, ORVEX_TEST_CLUSTER=str(folder))
        request = {"words": words, "folder": os.getcwd(), "environment": environment}
        line = json.dumps(request).encode() + b"\n"
        sent = socket.send_fds(connection, [line], [0, 1, 2])
        connection.sendall(line[sent:])
        answer = connection.recv(16)
        return int(answer) if answer else 255


def main():
    task, folder, *words = sys.argv[1:]
    folder = pathlib.Path(folder)
    while words[0].startswith("-"):  # options of a remote shell, without a meaning here
        words.pop(0)
    host, *program = words
    if task == "--serve":
        serve(folder, host)
    return call(folder, host, ["/bin/sh", "-c", " ".join(program)] if task == "--shell" else program)


sys.exit(main())
