#!/usr/bin/python3
"""report.py: write docs/performance.md and the points of its plots from the results of the benchmarks.

    report.py RESULTS SIZES FOLDER    RESULTS: the JSON output of Google Benchmark. SIZES: NAME=VALUE lines. The script
                                      writes report.md, promises.md and a file of points for each plot into FOLDER

The exit status is 3 if a promise is broken; a target that is not met does not count. A time is the median of its
repetitions.
"""
import json
import re
import sys
from statistics import quantiles

POSITIONS = {0: "head", 31: "middle", 63: "end"}
MEGABYTES = [10, 100, 500]
TEXT_LIMIT = 32 * 1024


class Results:
    def __init__(self, path):
        with open(path) as file:
            found = json.load(file)
        self.context = found["context"]
        self.times = {}
        for run in found["benchmarks"]:
            if run["run_type"] == "iteration":
                name = re.sub(r"/(manual_time|real_time|(iterations|min_time):[\d.]+)", "", run["name"])
                self.times.setdefault(name, []).append(run["real_time"] / 1000)

    def quartiles(self, name):
        """In microseconds."""
        times = self.times[name]
        return quantiles(times, n=4, method="inclusive") if len(times) > 1 else times * 3

    def us(self, name):
        return self.quartiles(name)[1]

    def has(self, name):
        return name in self.times


def digits(number):
    return f"{number:.0f}" if number >= 100 else f"{number:.1f}" if number >= 10 else f"{number:.2f}"


def table(head, rows):
    """Markdown. Columns of numbers, whose heads name a unit or a ratio, are aligned to the right."""
    marks = ["--:" if re.search("µs|ratio|bytes", name) else "---" for name in head]
    return "\n".join("| " + " | ".join(map(str, row)) + " |" for row in [head, marks, *rows]) + "\n"


class Bound:
    """The ratio of our time to another: at most the limit, or the other at least so many times ours."""

    def __init__(self, results, what, ours, theirs, other, bound, limit):
        self.ours, self.theirs = results.us(ours), results.us(theirs)
        self.what, self.other, self.bound, self.limit = what, other, bound, limit
        self.ratio = self.ours / self.theirs if bound == "at most" else self.theirs / self.ours
        self.missed_by = self.ratio / limit - 1 if bound == "at most" else 1 - self.ratio / limit
        self.holds = self.missed_by <= 0

    def row(self, state):
        return [self.what, digits(self.ours), self.other, digits(self.theirs), f"{self.ratio:.2f}",
                f"{self.bound} {self.limit:g}", state]


def miss_bound(results, vrf, mb):
    arguments = f"mb:{mb}/vrf:{vrf}"
    return Bound(results, f"a miss in VRF {vrf}, parent of {mb} MB", f"miss/{arguments}", f"miss_by_hand/{arguments}",
                 "by hand", "at most", 1.10)


def promises(results):
    """Bounds that each run keeps."""
    for position, place in POSITIONS.items():
        for n in (1, 4):
            arguments = f"position:{position}/addresses:{n}"
            yield Bound(results, f"a hit, {place} of the cache, {n} address{'es' * (n > 1)}", f"hit/{arguments}",
                        f"hit_floor/{arguments}", "its floor", "at most", 1.15)
    hit = "a hit, end of the cache, 4 addresses", "hit/position:63/addresses:4"
    yield Bound(results, *hit, "libc/files", "getaddrinfo, hosts file", "at least", 4)
    yield Bound(results, *hit, "libc/dns", "getaddrinfo, dnsmasq on loopback", "at least", 12)


def targets(results):
    """Bounds to aim for."""
    for vrf in (0, 1):
        for mb in MEGABYTES:
            yield miss_bound(results, vrf, mb)
    yield Bound(results, "a miss in VRF 1, parent of 10 MB", "miss/mb:10/vrf:1", "ip_netns_exec/mb:10",
                "ip netns exec, getent", "at least", 5)


def promise_table(results, sizes):
    """The table, and whether all promises are kept."""
    def state(kept):
        return "yes" if kept else "**no**"
    bounds, text = list(promises(results)), int(sizes["text"])
    rows = [bound.row(state(bound.holds)) for bound in bounds]
    rows.append(["text of the shared library", f"{text} bytes", "", "", "", f"under {TEXT_LIMIT} bytes",
                 state(text < TEXT_LIMIT)])
    return table(["what", "µs", "compared with", "its µs", "ratio", "promise", "kept"], rows), \
        text < TEXT_LIMIT and all(bound.holds for bound in bounds)


def target_table(results):
    return table(["what", "µs", "compared with", "its µs", "ratio", "target", "state"],
                 [bound.row("met" if bound.holds else f"missed by {bound.missed_by:.1%}".replace("%", " %"))
                  for bound in targets(results)])


def pair_row(results, label, ours, theirs):
    a, b = results.quartiles(ours), results.quartiles(theirs)
    return [*label, digits(a[1]), f"{digits(a[0])} to {digits(a[2])}", digits(b[1]), f"{digits(b[0])} to {digits(b[2])}",
            f"{a[1] / b[1]:.2f}"]


def hits(results):
    rows = [pair_row(results, [n, place], f"hit/position:{position}/addresses:{n}",
                     f"hit_floor/position:{position}/addresses:{n}")
            for n in (1, 4) for position, place in POSITIONS.items()]
    return table(["addresses", "record at", "a hit, µs", "quartiles, µs", "its floor, µs", "quartiles, µs", "ratio"], rows)


def peers(results):
    hit = results.us("hit/position:63/addresses:4")
    names = {"hit/position:63/addresses:4": "a hit, end of the cache", "libc/files": "libc, hosts file",
             "libc/dns": "libc, dnsmasq on loopback", "ares_dns": "c-ares, the same dnsmasq",
             "unbound_cached": "libunbound, from its own cache"}
    return table(["two IPv4 and two IPv6 addresses by", "µs", "ratio"],
                 [[text, digits(results.us(name)), f"{results.us(name) / hit:.1f}"]
                  for name, text in names.items() if results.has(name)])


def misses(results):
    rows = [pair_row(results, [vrf, mb], f"miss/mb:{mb}/vrf:{vrf}", f"miss_by_hand/mb:{mb}/vrf:{vrf}")
            for vrf in (0, 1) for mb in MEGABYTES]
    return table(["VRF", "parent, MB", "a miss, µs", "quartiles, µs", "by hand, µs", "quartiles, µs", "ratio"], rows)


def background(results):
    rows = [[f"a start, parent of {mb} MB", digits(results.us(f"start/mb:{mb}/jobs:1")),
             f"a fork alone: {digits(results.us(f'fork_alone/mb:{mb}/jobs:1'))}"] for mb in MEGABYTES]
    rows += [["a completion that fills the last place in the cache", digits(results.us("completion")), ""],
             ["a refresh pass, 64 fresh records", digits(results.us("pass/expired:0")), ""],
             ["a refresh pass, 64 expired records, 10 jobs started", digits(results.us("pass/expired:64")),
              f"10 forks alone: {digits(results.us('fork_alone/mb:10/jobs:10'))}"]]
    return table(["time inside the call", "µs", "compared with, µs"], rows)


def decoding(results):
    return table(["addresses", "canonical names", "decoded and released, µs"],
                 [[n, "one" if canonical else "none", digits(results.us(f"decode/addresses:{n}/canonical:{canonical}"))]
                  for n in (1, 4) for canonical in (0, 1)])


def sinks(results):
    def labels(mask, last):
        return " ".join([label for bit, label in ((1, "H"), (2, "B"), (4, "F")) if mask & bit] + last) or "none"
    rows = [["a message", labels(mask, ["P"]), digits(results.us(f"trace_point/sinks:{mask}"))] for mask in range(8)]
    rows += [["an entry and an exit line", labels(mask, []), digits(results.us(f"entry_and_exit/sinks:{mask}"))]
             for mask in range(4)]
    return table(["trace point", "sinks", "µs"], rows)


def footprint(results, sizes):
    return table(["", "bytes"], [
        ["text of libdnscache.so", sizes["text"]], ["data of libdnscache.so", sizes["data"]],
        ["text of libdnscache-linux.so", sizes["linux_text"]], ["data of libdnscache-linux.so", sizes["linux_data"]],
        ["heap of a full cache: 64 records, without the links of the list", results.context["heap_of_a_full_cache"]],
        ["resident memory of `examples/epoll_host` with one answer", int(sizes["host_rss_kib"]) * 1024],
        ["of that, memory that no file backs", int(sizes["host_anon_kib"]) * 1024]])


def points(results):
    yield "hit", [(p + 1, results.us(f"hit/position:{p}/addresses:4"), results.us(f"hit_floor/position:{p}/addresses:4"))
                  for p in (0, 7, 15, 23, 31, 39, 47, 55, 63)]
    yield "miss", [(mb, results.us(f"miss/mb:{mb}/vrf:0"), results.us(f"miss_by_hand/mb:{mb}/vrf:0"))
                   for mb in (10, 50, 100, 200, 300, 400, 500)]
    yield "pass", [(n, results.us(f"pass/expired:{n}")) for n in (0, 8, 10, 16, 24, 32, 40, 48, 56, 64)]


def main():
    results = Results(sys.argv[1])
    with open(sys.argv[2]) as file:
        sizes = dict(line.strip().split("=", 1) for line in file)
    folder = sys.argv[3]
    promised, kept_all = promise_table(results, sizes)
    aimed_at = target_table(results)
    with open(f"{sys.path[0]}/performance.md.in") as file:
        text = file.read()
    parts = {"promises": promised, "targets": aimed_at, "hits": hits(results), "peers": peers(results),
             "misses": misses(results), "background": background(results), "decoding": decoding(results),
             "sinks": sinks(results), "footprint": footprint(results, sizes), "machine": sizes["machine"],
             "repetitions": len(results.times["libc/files"])}
    for name, part in parts.items():
        text = text.replace(f"@{name}@", str(part).rstrip("\n"))
    for name, content in (("report.md", text), ("promises.md", f"{promised}\n{aimed_at}")):
        with open(f"{folder}/{name}", "w") as file:
            file.write(content)
    for name, rows_of_plot in points(results):
        with open(f"{folder}/{name}.points", "w") as file:
            file.writelines("\t".join(map(str, point)) + "\n" for point in rows_of_plot)
    return 0 if kept_all else 3


if __name__ == "__main__":
    sys.exit(main())
