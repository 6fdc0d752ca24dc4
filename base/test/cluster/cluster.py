"""Hosts made of namespaces: each has a name, a network interface and processes of its own, on one machine.

    with Cluster(3) as cluster:
        subprocess.run(cluster.job("openmpi", [3, 2, 2], "program", "argument"))
        subprocess.run(cluster.on(0, "program", "argument"))

A host is one process that works like a login server: it starts programs on request (see remote.py). When a host ends, all
its programs end. The hosts share the processors and the file system. By default each host sees the processes of the
others. Needs root.
"""
import argparse
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

MARK = "ORVEX_TEST_CLUSTER"  # in the environment of each process on the hosts
REMOTE = pathlib.Path(__file__).with_name("remote.py")
LAUNCHERS = {"openmpi": "mpirun.openmpi", "mpich": "mpiexec.mpich"}
NETWORK = "10.213.7"
PATIENCE = 30  # [s] for a host to come up


def name_of(host):
    return f"node{host}"


def is_possible():
    """Whether this user may make hosts here."""
    if os.geteuid() != 0 or not shutil.which("unshare") or not shutil.which("ip"):
        return False
    try:
        return subprocess.run(["unshare", "--net", "--uts", "--pid", "--fork", "--mount-proc", "ip", "link", "add",
                               "hub", "type", "bridge"], capture_output=True, timeout=PATIENCE).returncode == 0
    except subprocess.TimeoutExpired:
        return False


class Cluster:
    """With `own_processes` no host sees the processes of another. Only Open MPI works in this way. MPICH takes all hosts
    of a machine for one host and shares memory between them. When it is limited to the network, even a bare program
    sometimes hangs at its end."""

    def __init__(self, hosts, own_processes=False):
        self.names = [name_of(host) for host in range(hosts)]
        self._namespaces = ["--net", "--uts", "--mount", "--fork", "--kill-child"]
        if own_processes:
            self._namespaces += ["--pid", "--mount-proc"]
        self._folder = None
        self._processes = []

    def __enter__(self):
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="orvex-cluster-"))
        try:
            lines = [f"{NETWORK}.{host + 1} {name}" for host, name in enumerate(self.names)]
            (self._folder / "hosts").write_text("\n".join(["127.0.0.1 localhost", *lines, ""]))
            # The launchers call this program instead of a remote shell.
            agent = self._folder / "agent"
            agent.write_text(f'#!/bin/sh\nexec "{sys.executable}" -B "{REMOTE}" --shell "{self._folder}" "$@"\n')
            agent.chmod(0o700)
            # One more host without a name: the switch, to which the cables run.
            for name in ["switch", *self.names]:
                self._start(name)
            self._connect()
            return self
        except BaseException:
            self.__exit__()
            raise

    def __exit__(self, *_):
        for process in self._processes:
            process.kill()  # the first process of the host ends with it
        mark = f"{MARK}={self._folder}".encode()
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):  # ended meanwhile
                if mark in (entry / "environ").read_bytes().split(b"\0"):
                    os.kill(int(entry.name), signal.SIGKILL)
        for process in self._processes:
            process.wait()
        shutil.rmtree(self._folder, ignore_errors=True)

    def _start(self, name):
        command = ["unshare", *self._namespaces, sys.executable, "-B", str(REMOTE), "--serve", str(self._folder), name]
        self._processes.append(subprocess.Popen(command, stdin=subprocess.DEVNULL))
        end = time.monotonic() + PATIENCE
        while not (self._folder / f"{name}.pid").exists():
            if time.monotonic() > end or self._processes[-1].poll() is not None:
                raise RuntimeError(f"the host {name} doesn't come up")
            time.sleep(0.01)

    def _connect(self):
        """Makes a cable from each host to the switch."""
        def ip(host, *words):
            subprocess.run(self.on(host, "ip", *words), check=True, timeout=PATIENCE)

        # The process that unshare started, by its identifier outside the namespaces.
        children = [int(pathlib.Path(f"/proc/{p.pid}/task/{p.pid}/children").read_text()) for p in self._processes]
        ip("switch", "link", "add", "hub", "type", "bridge")
        ip("switch", "link", "set", "hub", "up")
        for host, name in enumerate(self.names):
            subprocess.run(["ip", "link", "add", "eth0", "netns", str(children[host + 1]), "type", "veth",
                            "peer", "name", f"port{host}", "netns", str(children[0])], check=True, timeout=PATIENCE)
            ip("switch", "link", "set", f"port{host}", "master", "hub", "up")
            ip(host, "link", "set", "lo", "up")
            ip(host, "address", "add", f"{NETWORK}.{host + 1}/24", "dev", "eth0")
            ip(host, "link", "set", "eth0", "up")

    def on(self, host, *command):
        """Returns the words that run `command` on a host, with the streams, folder and environment of this process."""
        name = host if isinstance(host, str) else self.names[host]
        return [sys.executable, "-B", str(REMOTE), "--on", str(self._folder), name, *map(str, command)]

    def job(self, mpi, slots, *program):
        """Returns the same for a job: `slots[i]` ranks on host i, in that order. The launcher runs on the first host."""
        agent = str(self._folder / "agent")
        hosts = ",".join(f"{name}:{count}" for name, count in zip(self.names, slots) if count)
        if mpi == "openmpi":
            options = ["--allow-run-as-root", "--oversubscribe", "--bind-to", "none", "--mca", "plm_rsh_agent", agent,
                       "--mca", "routed", "direct", "--host", hosts, "-np", str(sum(slots))]
        else:
            options = ["-launcher", "ssh", "-launcher-exec", agent, "-hosts", hosts, "-n", str(sum(slots))]
        return self.on(0, LAUNCHERS[mpi], *options, *program)


def main():
    parser = argparse.ArgumentParser(prog="cluster", description="Runs a job over hosts made of namespaces.")
    parser.add_argument("--mpi", choices=sorted(LAUNCHERS), default="openmpi")
    parser.add_argument("--slots", default="2,2", help="ranks on each host (default: 2,2)")
    parser.add_argument("--on", type=int, metavar="HOST", help="run the program on that host alone, without a launcher")
    parser.add_argument("program", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    if not arguments.program:
        parser.error("a program is missing")
    if not is_possible():
        sys.exit("cluster: hosts need root, the commands unshare and ip, and a kernel that lets them make namespaces")
    slots = [int(count) for count in arguments.slots.split(",")]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with Cluster(len(slots)) as cluster:
        command = (cluster.job(arguments.mpi, slots, *arguments.program) if arguments.on is None
                   else cluster.on(arguments.on, *arguments.program))
        sys.exit(subprocess.run(command).returncode)


if __name__ == "__main__":
    main()
