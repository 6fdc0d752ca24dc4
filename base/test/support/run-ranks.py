#!/usr/bin/env python3
"""Runs a program as a job of one MPI, once for each rank count, and cleans up behind it.

    run-ranks.py --mpi openmpi4 --launcher PATH --ranks 1,2,3 [--seconds 60] [--bind] [--expect REGEX]...
                 [--exit-value N] [--driver NAME] -- PROGRAM [ARG...]

The program gets "-mpi" and the driver's name behind its own arguments ({mpi} in an argument becomes that name).
Each run must end with exit value 0; with --exit-value, with that; with --expect, with any other than 0. The output
must hold each of the expected expressions. A run that takes longer than its seconds is ended with all its processes and has failed.
"""
import argparse
import ctypes
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
import uuid

MARK = "ORVEX_TEST_JOB"
# What the sanitizer says when its look for leaks crashed by itself, as it now and then does with the threads of an
# MPI library about: that says nothing of the program.
CHECKER_FAILED = "LeakSanitizer has encountered a fatal error"
# What it may leave out then: first the memory of threads, where it stumbles, and in the end the look for leaks alone.
FURTHER_ATTEMPTS = [("without thread-local memory", "LSAN_OPTIONS", "use_tls=0"),
                    ("without the look for leaks", "ASAN_OPTIONS", "detect_leaks=0")]


def parse_arguments():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--mpi", required=True, choices=["openmpi4", "mpich2"])
    parser.add_argument("--launcher", required=True)
    parser.add_argument("--ranks", required=True, type=lambda text: [int(n) for n in text.split(",")])
    parser.add_argument("--seconds", type=float, default=60.0)
    parser.add_argument("--expect", action="append", default=[])
    parser.add_argument("--exit-value", type=int, help="what the launcher has to end with")
    parser.add_argument("--bind", action="store_true", help="each rank to a processor of its own")
    parser.add_argument("--driver", help="the driver's name if it isn't the launcher's own")
    parser.add_argument("program", nargs="+")
    return parser.parse_args()


def launcher_command(mpi, launcher, ranks, bind):
    if mpi == "mpich2":
        return [launcher, *(["-bind-to", "core"] if bind else []), "-n", str(ranks)]
    command = [launcher, *(["--bind-to", "core"] if bind else ["--oversubscribe", "--bind-to", "none"])]
    if os.geteuid() == 0:
        command.append("--allow-run-as-root")
    return command + ["-np", str(ranks)]


def end_with_parent():
    """Runs in the launcher's process: whoever kills this script, even by force, must not leave a job behind."""
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def marked_processes(mark):
    """All processes of a run, whoever their parent is by now."""
    needle = f"{MARK}={mark}".encode()
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit() or int(entry.name) == os.getpid():
            continue
        try:
            if needle in (entry / "environ").read_bytes().split(b"\0"):
                found.append(int(entry.name))
        except OSError:
            pass  # ended meanwhile, or not ours
    return found


def end_processes(mark):
    """Ends what a run left; returns how many processes that were."""
    left = marked_processes(mark)
    for number, patience in ((signal.SIGTERM, 3.0), (signal.SIGKILL, 3.0)):
        for pid in marked_processes(mark):
            try:
                os.kill(pid, number)
            except ProcessLookupError:
                pass
        end = time.monotonic() + patience
        while marked_processes(mark) and time.monotonic() < end:
            time.sleep(0.05)
    return len(left)


def run(arguments, ranks):
    """What is wrong with a job, or None."""
    failure, text = run_once(arguments, ranks)
    for what, variable, option in FURTHER_ATTEMPTS:
        if not failure or CHECKER_FAILED not in text:
            break
        print(f"run-ranks: the look for leaks failed, not the program; again {what}", flush=True)
        os.environ[variable] = ":".join(filter(None, [os.environ.get(variable), option]))
        failure, text = run_once(arguments, ranks)
    return failure


def run_once(arguments, ranks):
    """One job; returns what is wrong with it, or None, and what it printed."""
    driver = arguments.driver or arguments.mpi
    mark = uuid.uuid4().hex
    command = launcher_command(arguments.mpi, arguments.launcher, ranks, arguments.bind)
    command += [argument.replace("{mpi}", driver) for argument in arguments.program] + ["-mpi", driver]
    start = time.monotonic()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               env=dict(os.environ, **{MARK: mark}), start_new_session=True, preexec_fn=end_with_parent)
    try:
        output, _ = process.communicate(timeout=arguments.seconds)
        value = process.returncode
    except subprocess.TimeoutExpired:
        value = None
    finally:
        left = end_processes(mark)
    if value is None:
        process.kill()
        output, _ = process.communicate()
    text = output.decode(errors="replace")
    print(f"--- {ranks} ranks, {time.monotonic() - start:.1f} s, exit value {value} " + "-" * 30, flush=True)
    print(text, flush=True)
    if value is None:
        return f"didn't end within {arguments.seconds:g} s; {left} processes were ended", text
    expected = arguments.exit_value if arguments.exit_value is not None else None if arguments.expect else 0
    if expected is not None and value != expected:
        return f"exit value {value}, expected {expected}", text
    if expected is None and value == 0:
        return "exit value 0, a failure was expected", text
    missing = [expression for expression in arguments.expect if not re.search(expression, text, re.M)]
    return (f"the output has no {missing}" if missing else None), text


def main():
    arguments = parse_arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    failures = []
    for ranks in arguments.ranks:
        failure = run(arguments, ranks)
        if failure:
            failures.append(f"{ranks} ranks: {failure}")
    for failure in failures:
        print(f"run-ranks: {arguments.mpi}, {failure}")
    return 1 if failures else 0


sys.exit(main())
