#!/usr/bin/env python3
"""Starts nginx on loopback with a 1 KB and a 100 MB file, runs
bench_http_client against it and prints, for each case, the medians of
NetHttpClient and of the Beast client and their ratio (ours / Beast: above
1.0 means ours is faster), then the resident size after 1 000 and 100 000
requests.

    python3 bench/http_client/run_bench.py [build/bench/bench_http_client]"""
import json
import os
import subprocess
import sys

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "..", "scripts"))
from harness.nginx import Nginx  # noqa: E402

binary = sys.argv[1] if len(sys.argv) > 1 else "build/bench/bench_http_client"
REPS = 5

with Nginx() as server:
    server.write("1k.bin", os.urandom(1024))
    block = os.urandom(1024 * 1024)
    with open(os.path.join(server.root, "100m.bin"), "wb") as f:
        for _ in range(100):
            f.write(block)
    env = dict(os.environ, FERRULE_BENCH_TARGET=server.authority())
    out = subprocess.run([binary, "--benchmark_repetitions=%d" % REPS, "--benchmark_format=json",
                          "--benchmark_filter=^BM_(Sequential|Parallel|Body)"],
                         check=True, capture_output=True, text=True, env=env, timeout=900).stdout
    rss = subprocess.run([binary, "--benchmark_format=json", "--benchmark_filter=BM_Rss"],
                         check=True, capture_output=True, text=True, env=env, timeout=900).stdout

medians = {}
for b in json.loads(out)["benchmarks"]:
    if b.get("aggregate_name") == "median":
        medians[b["run_name"].split("/")[0]] = b
for case, unit in (("Sequential1K", "items"), ("Parallel16x1K", "items"), ("Body100M", "bytes")):
    ours = medians["BM_%s_Ferrule" % case]["%s_per_second" % unit]
    beast = medians["BM_%s_Beast" % case]["%s_per_second" % unit]
    if unit == "items":
        # CPU per request tells more than wall time on a loaded machine.
        batch = medians["BM_%s_Ferrule" % case]["items_per_second"] * medians["BM_%s_Ferrule" % case]["real_time"] / 1e3
        cpu_ours = medians["BM_%s_Ferrule" % case]["cpu_time"] * 1e3 / batch
        cpu_beast = medians["BM_%s_Beast" % case]["cpu_time"] * 1e3 / batch
        print("%-14s NetHttpClient %9.0f req/s %5.1f us CPU/req   Beast %9.0f req/s %5.1f us CPU/req   ratio %.2f"
              % (case, ours, cpu_ours, beast, cpu_beast, ours / beast))
    else:
        print("%-14s NetHttpClient %9.1f MB/s    Beast %9.1f MB/s    ratio %.2f"
              % (case, ours / 1e6, beast / 1e6, ours / beast))
r = json.loads(rss)["benchmarks"][0]
print("RSS after 1 000 requests %d kB, after 100 000 %d kB (pool buffers %d)"
      % (r["rss_kb_after_1k"], r["rss_kb_after_100k"], r["pool_buffers"]))
print("Body bytes copied per body byte: NetHttpClient 0 (reads land in pool buffers that travel on),"
      " Beast 1 (read buffer to body buffer)")
