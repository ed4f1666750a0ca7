#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Reads Google Benchmark JSON with repetitions and prints, per target, the medians of the manager
# case and of its bare baseline, their ratio and whether the target is met. Exit status 1 when a
# target is missed.
import json
import sys

runs = json.load(open(sys.argv[1]))["benchmarks"]
median = {}
for run in runs:
    if run.get("run_type") == "aggregate" and run.get("aggregate_name") == "median":
        median[run["run_name"]] = run

def cpu_ns(name):
    run = median[name]
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
    return run["cpu_time"] * scale

rows = []  # (what, manager ns, baseline ns, ratio, limit text, met)

def ratio(what, mgr, base, limit):
    r = cpu_ns(mgr) / cpu_ns(base)
    rows.append((what, cpu_ns(mgr), cpu_ns(base), "%.3f" % r, "<= %.2f" % limit, r <= limit))

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
    mgr, base = cpu_ns("BM_Mgr_" + gate), cpu_ns("BM_Bare_EmptyLoop")
    rows.append(("%s / empty loop" % gate, mgr, base, "+%.2f ns" % (mgr - base), "<= +1 ns",
                 mgr - base <= 1.0))
ratio("open detail line / one snprintf", "BM_Mgr_OpenDetailLine", "BM_Bare_Snprintf", 1.05)
# Cost per memory from 100 to 10,000 memories: the manager's growth at most the bare calls'.
growth = {}
for who in ("Mgr", "Bare"):
    small = cpu_ns("BM_%s_AllocAllRelease/100" % who) / 100
    large = cpu_ns("BM_%s_AllocAllRelease/10000" % who) / 10000
    growth[who] = large / small
rows.append(("cost per memory, 100 -> 10,000: growth", growth["Mgr"], growth["Bare"],
             "%.3f / %.3f" % (growth["Mgr"], growth["Bare"]), "<= bare + 0.02",
             growth["Mgr"] <= growth["Bare"] + 0.02))

def fmt(value):
    return "%.3f" % value if value < 100 else "%.0f" % value

width = max(len(row[0]) for row in rows)
print("%-*s %14s %14s %15s %16s  %s" % (width, "target (cpu time, medians)", "manager",
                                        "baseline", "ratio", "limit", "met"))
for what, mgr, base, r, limit, met in rows:
    print("%-*s %14s %14s %15s %16s  %s" % (width, what, fmt(mgr), fmt(base), r, limit,
                                            "yes" if met else "NO"))
print("(times in ns; the growth row shows the two growth factors)")

# The one lock on two threads: throughput of two threads over one (real time).
print("\nthroughput on 2 threads / 1 thread (items per second, real time):")
for who in ("Mgr", "Bare", "BareLocked"):
    one = median["Threads/%s/4096/real_time/threads:1" % who]["items_per_second"]
    two = median["Threads/%s/4096/real_time/threads:2" % who]["items_per_second"]
    print("  %-10s %.2fx" % (who, two / one))

missed = [row[0] for row in rows if not row[5]]
print("\n%d of %d targets met" % (len(rows) - len(missed), len(rows)))
sys.exit(1 if missed else 0)
