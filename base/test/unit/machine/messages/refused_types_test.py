#!/usr/bin/env python3
"""What can't travel between ranks is refused by the compiler, in words that name the fault.

    refused_types_test.py INCLUDE_FOLDER COMPILER [FLAG...]
"""
import concurrent.futures
import re
import subprocess
import sys

TRAVEL = "this type can't travel between ranks"
BITS = "std::vector<bool> packs its elements into bits and can't travel"
CONSTANT = "a constant can't receive"
BLOCKS = "blocks of any length travel from a container into one that can be resized"
KIND = "blocks of any length need entries of the same kind on both sides"

# A use of `comm`, and the words of its first error; None for one that compiles.
USES = [
    ("Pair pair; std::list<int> list; std::string s; list.size(); comm.send(s, 1); comm.probe<double>(n, n, n);"
     "comm.gatherVector(std::span(numbers), numbers, counts, 0); comm.scatterVector(s, counts, s, 0);"
     "comm.allReduce(numbers, add); comm.recv(std::span(numbers), 1); comm.allGatherVector(s, s, counts);", None),
    ("comm.send(Pair(), 1);", TRAVEL),
    ("std::list<int> list; comm.recv(list, 1);", TRAVEL),
    ("const int one = 1; comm.recv(one, 1);", CONSTANT),
    ("const std::vector<int> fixed; comm.recv(fixed, 1);", CONSTANT),
    ("std::vector<bool> bits; comm.broadcast(bits, 0);", BITS),
    ("comm.probe<Pair>(n, n, n);", "the type of one value of fixed size is needed here"),
    ("comm.iProbe<std::string>(n, n, n);", "the type of one value of fixed size is needed here"),
    ("std::vector<Pair> pairs; comm.gatherVector(pairs, pairs, counts, 0);", TRAVEL),
    ("comm.gatherVector(numbers, n, counts, 0);", BLOCKS),
    ("std::span<int> view(numbers); comm.allGatherVector(numbers, view, counts);", BLOCKS),
    ("std::vector<bool> bits; comm.scatterVector(bits, counts, bits, 0);", BITS),
    ("std::vector<long> others; comm.scatterVector(numbers, counts, others, 0);", KIND),
    ("std::vector<std::array<int, 2>> others; comm.allToAllVector(numbers, counts, others, counts);", KIND),
    ("std::vector<Pair> pairs; comm.reduce(pairs, [](const Pair& a, const Pair&) { return a; }, 0);", TRAVEL),
    ("const std::vector<int> fixed; comm.allReduce(fixed, add);", CONSTANT),
    ("const int one = 1; comm.scan(one, add);", CONSTANT),
    ("comm.iSend(1, 1, requests);", "the message would outlive this temporary"),
]

PROGRAM = """
#include "machine/Communicator.h"
#include "machine/RequestStack.h"
#include <list>
struct Pair { int a; std::string b; };
void use(Communicator& comm, MpiCore::RequestStack& requests, std::vector<int>& numbers,
         std::vector<unsigned>& counts, unsigned& n) {
    [[maybe_unused]] const auto add = [](const int& a, const int& b) { return a + b; };
    (void)comm, (void)requests, (void)numbers, (void)counts, (void)n;
    USE
}
"""


def find_fault(command, use, expected):
    result = subprocess.run(command, input=PROGRAM.replace("USE", use), capture_output=True, text=True, check=False)
    first = re.search(r"error: (.*)", result.stderr)
    if expected is None:
        return None if result.returncode == 0 else f"isn't compiled: {use}\n{result.stderr}"
    if first and expected in first[1]:
        return None
    return f"{use}\n  should be told: {expected}\n  but is told:    {first[1] if first else 'nothing'}"


def main():
    folder, *compiler = sys.argv[1:]
    command = [*compiler, "-std=c++20", "-fsyntax-only", "-I", folder, "-x", "c++", "-"]
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        faults = [f for f in pool.map(lambda row: find_fault(command, *row), USES) if f]
    print("\n".join(faults) or f"{len(USES)} uses are judged as they should be")
    return bool(faults)


if __name__ == "__main__":
    sys.exit(main())
