#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Reads Google Benchmark JSON with repetitions and prints, per target whose cases ran, the medians
# of the manager case and of its bare baseline, their ratio and whether the target is met; targets
# whose cases did not run are named as skipped. Exit status 1 when a target that ran is missed, 2
# when the file holds no results at all.
import json
import sys

try:
    with open(sys.argv[1]) as results:
        text = results.read()
    runs = json.loads(text)["benchmarks"] if text.strip() else []  # empty: nothing matched
except (OSError, ValueError, KeyError) as error:
    print("bench_table.py: cannot read %s: %s" % (sys.argv[1], error), file=sys.stderr)
    sys.exit(2)
median = {}
failed = set()  # cases that reported an error instead of times
for run in runs:
    if run.get("error_occurred"):
        failed.add(run["run_name"])
    elif run.get("run_type") == "aggregate" and run.get("aggregate_name") == "median":
        median[run["run_name"]] = run
if not median and not failed:
    print("no benchmark results in %s: no case matched, so no target was run" % sys.argv[1])
    sys.exit(2)

def cpu_ns(name):
    run = median[name]
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
    return run["cpu_time"] * scale

rows = []  # (what, manager ns, baseline ns, ratio text, limit text, met)
skipped = []

def target(what, cases, limit, measure):
    """Adds a row when all cases ran (measure() gives manager, baseline, ratio text, met)."""
    if failed.intersection(cases):
        rows.append((what, None, None, "error", limit, False))
    elif all(case in median for case in cases):
        mgr, base, text, met = measure()
        rows.append((what, mgr, base, text, limit, met))
    else:
        skipped.append(what)

def ratio(what, mgr, base, limit):
    def measure():
        r = cpu_ns(mgr) / cpu_ns(base)
        return cpu_ns(mgr), cpu_ns(base), "%.3f" % r, r <= limit
    target(what, (mgr, base), "<= %.2f" % limit, measure)

for size, label in ((4096, "4 KiB"), (1 << 20, "1 MiB")):
    ratio("allocate+release %s / bare + host calls" % label, "BM_Mgr_AllocRelease/%d" % size,
          "BM_BareHost_AllocRelease/%d" % size, 1.05)
    ratio("allocate+release %s / bare" % label, "BM_Mgr_AllocRelease/%d" % size,
          "BM_Bare_AllocRelease/%d" % size, 1.10)
for keys in (10, 1000, 100000):
    ratio("getShmInfo, %d keys / bare map" % keys, "BM_Mgr_Lookup/%d" % keys,
          "BM_Bare_Lookup/%d" % keys, 1.10)
ratio("releaseAllShmMems 10,000 / munmap+close loop", "BM_Mgr_ReleaseAll/10000",
      "BM_Bare_ReleaseAll/10000", 1.05)
# A closed gate costs the reads of the switches: within 1 ns (a few cycles) of an empty loop.
for gate in ("ClosedLevelGate", "ClosedDbgLogGate"):
    def measure(mgr="BM_Mgr_" + gate, base="BM_Bare_EmptyLoop"):
        diff = cpu_ns(mgr) - cpu_ns(base)
        return cpu_ns(mgr), cpu_ns(base), "%+.2f ns" % diff, diff <= 1.0
    target("%s / empty loop" % gate, ("BM_Mgr_" + gate, "BM_Bare_EmptyLoop"), "<= +1 ns", measure)
ratio("open detail line / one snprintf", "BM_Mgr_OpenDetailLine", "BM_Bare_Snprintf", 1.05)
# Cost per memory from 100 to 10,000 memories: the manager's growth at most the bare calls'.
def growth_of(who):
    small = cpu_ns("BM_%s_AllocAllRelease/100" % who) / 100
    return cpu_ns("BM_%s_AllocAllRelease/10000" % who) / 10000 / small

def measure_growth():
    mgr, bare = growth_of("Mgr"), growth_of("Bare")
    return mgr, bare, "%.3f / %.3f" % (mgr, bare), mgr <= bare + 0.02
target("cost per memory, 100 -> 10,000: growth",
       ["BM_%s_AllocAllRelease/%d" % (who, n) for who in ("Mgr", "Bare") for n in (100, 10000)],
       "<= bare + 0.02", measure_growth)

def fmt(value):
    return "-" if value is None else "%.3f" % value if value < 100 else "%.0f" % value

if rows:
    width = max(len(row[0]) for row in rows)
    print("%-*s %14s %14s %15s %16s  %s" % (width, "target (cpu time, medians)", "manager",
                                            "baseline", "ratio", "limit", "met"))
    for what, mgr, base, r, limit, met in rows:
        print("%-*s %14s %14s %15s %16s  %s" % (width, what, fmt(mgr), fmt(base), r, limit,
                                                "yes" if met else "NO"))
    print("(times in ns%s)" % ("; the growth row shows the two growth factors"
                                 if rows[-1][0].startswith("cost per memory") else ""))

# The one lock on two threads: throughput of two threads over one (real time).
threads = []
for who in ("Mgr", "Bare", "BareLocked"):
    one, two = ("Threads/%s/4096/real_time/threads:%d" % (who, n) for n in (1, 2))
    if one in median and two in median:
        threads.append((who, median[two]["items_per_second"] / median[one]["items_per_second"]))
if threads:
    print("\nthroughput on 2 threads / 1 thread (items per second, real time):")
    for who, speedup in threads:
        print("  %-10s %.2fx" % (who, speedup))

missed = [row[0] for row in rows if not row[5]]
if skipped:
    print("\nnot run, so skipped (not failed): %d of %d targets: %s"
          % (len(skipped), len(rows) + len(skipped), "; ".join(skipped)))
print("\n%d of %d targets run were met" % (len(rows) - len(missed), len(rows)))
sys.exit(1 if missed else 0)
