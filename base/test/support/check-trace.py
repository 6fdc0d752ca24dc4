#!/usr/bin/env python3
"""Checks a trace that orvexctl wrote against the rules of its format. Prints each breach; the exit value is 1 when there
is one.

    check-trace.py FILE [RANKS]
"""
import bisect
import collections
import json
import re
import sys


class Number(str):
    """A real number as it stands in the file."""


def nanoseconds(number):
    whole, _, decimals = number.partition(".")
    return int(whole) * 1000 + int(decimals)


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file, parse_float=Number)


class Check:
    def __init__(self, trace, ranks):
        self.breaches = []
        self.events = trace["traceEvents"]
        self.other = trace["otherData"]
        self.slices = collections.defaultdict(list)  # by process and thread: begin and end [ns], in the file's order
        self.ranks = self.other["ranks"]
        self.expect(ranks in (None, self.ranks), f"{self.ranks} ranks instead of {ranks}")
        self.check_times()
        self.check_names()
        self.check_nesting()
        self.check_requests()
        self.check_flows()
        written = sum(event["ph"] in "Xb" for event in self.events)
        self.expect(written == self.other["events"], f"{written} events, but told are {self.other['events']}")
        self.expect(self.other["violations"] == 0, f"{self.other['violations']} ends before the begin they depend on")

    def expect(self, holds, text):
        if not holds and len(self.breaches) < 20:
            self.breaches.append(text)

    def check_times(self):
        for event in self.events:
            for key in ("ts", "dur") if event["ph"] == "X" else () if event["ph"] == "M" else ("ts",):
                good = isinstance(event.get(key), Number) and re.fullmatch(r"\d+\.\d{3}", event[key])
                self.expect(good, f"{key} isn't a time with three decimals: {event}")

    def check_names(self):
        told = {(event["name"], event["pid"], event.get("tid")): event["args"] for event in self.events
                if event["ph"] == "M"}
        silent = set(self.other["silentRanks"])
        main = {rank + 1 for rank in range(self.ranks) if rank not in silent}
        for pid in main:
            name = told.get(("process_name", pid, None), {}).get("name", "")
            self.expect(re.fullmatch(rf"rank {pid - 1:04} \S+ pid \d+", name), f"process {pid} is named \"{name}\"")
            self.expect(told.get(("process_sort_index", pid, None)) == {"sort_index": pid - 1}, f"order of {pid}")
            self.expect(told.get(("thread_name", pid, pid)) == {"name": "main thread"}, f"main thread of {pid}")
        places = {(event["pid"], event["tid"]) for event in self.events if "tid" in event}
        threads = [thread for _, thread in places]
        self.expect(len(threads) == len(set(threads)), "a thread's number stands for two threads")
        self.expect({pid for pid, _ in places} == main, f"the processes are {sorted({pid for pid, _ in places})}")
        for pid, thread in places:
            self.expect(("thread_name", pid, thread) in told, f"thread {thread} has no name")

    def check_nesting(self):
        for event in self.events:
            if event["ph"] != "X":
                continue
            begin = nanoseconds(event["ts"])
            self.slices[event["pid"], event["tid"]].append((begin, begin + nanoseconds(event["dur"])))
        for place, slices in self.slices.items():
            around = []
            last = 0
            for begin, end in slices:
                self.expect(begin >= last, f"{place}: {begin} ns stands after {last} ns")
                last = begin
                while around and around[-1] <= begin and not (around[-1] == begin == end):
                    around.pop()
                self.expect(not around or end <= around[-1], f"{place}: [{begin}, {end}] ns reaches beyond {around[-1:]}")
                around.append(end)

    def check_requests(self):
        begins = {}
        for event in self.events:
            if event["ph"] == "b":
                self.expect(event["id"] not in begins, f"two requests have the number {event['id']}")
                begins[event["id"]] = event
            elif event["ph"] == "e":
                begin = begins.get(event["id"], {})
                alike = all(begin.get(key) == event[key] for key in ("pid", "tid", "cat", "name"))
                self.expect(alike and nanoseconds(begin["ts"]) <= nanoseconds(event["ts"]), f"no begin before {event}")
        ends = sum(event["ph"] == "e" for event in self.events)
        self.expect(ends == len(begins), f"{len(begins)} requests begin, {ends} end")

    def check_flows(self):
        flows = collections.defaultdict(list)
        for event in self.events:
            if event["ph"] in "stf":
                flows[event["id"]].append((nanoseconds(event["ts"]), "stf".index(event["ph"]), event))
        bounds = {place: sorted(slices) for place, slices in self.slices.items()}
        for number, steps in flows.items():
            steps.sort(key=lambda step: step[:2])
            order = "".join(event["ph"] for _, _, event in steps)
            self.expect(re.fullmatch("st*f", order), f"flow {number} goes {order}")
            self.expect(len({(event["cat"], event["name"]) for *_, event in steps}) == 1, f"flow {number} changes")
            for time, _, event in steps[:200]:
                self.expect(self.stands_in(bounds[event["pid"], event["tid"]], time), f"{event} is in no bracket")

    @staticmethod
    def stands_in(slices, time):
        """Whether one of them, sorted, holds the time. Those before the last few may be around it as well."""
        last = bisect.bisect_right(slices, (time, float("inf")))
        return any(begin <= time <= end for begin, end in reversed(slices[:last]))


def check(path, ranks=None):
    """The breaches, in words."""
    try:
        return Check(load(path), ranks).breaches
    except (KeyError, ValueError, TypeError, AttributeError) as error:
        return [f"{path} is no trace: {error!r}"]


def main():
    breaches = check(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else None)
    print(*breaches, f"{sys.argv[1]}: {len(breaches)} breaches", sep="\n")
    sys.exit(1 if breaches else 0)


if __name__ == "__main__":
    main()
