#!/usr/bin/env python3
"""Runs bench_http_head_parse with repetitions and prints, for requests and
responses, the median CPU time per head of MessageHeaders and of Beast and
their ratio (Beast / MessageHeaders: above 1.0 means ours is faster)."""
import json
import subprocess
import sys

binary = sys.argv[1] if len(sys.argv) > 1 else "build/bench/bench_http_head_parse"
out = subprocess.run([binary, "--benchmark_repetitions=7", "--benchmark_report_aggregates_only=true",
                      "--benchmark_filter=Heads", "--benchmark_format=json"],
                     check=True, capture_output=True, text=True).stdout
medians = {}
allocs = {}
for b in json.loads(out)["benchmarks"]:
    if b.get("aggregate_name") == "median":
        name = b["run_name"]
        medians[name] = b["cpu_time"] / 5  # five heads per iteration
        allocs[name] = b.get("allocs/head")
for kind in ("Request", "Response"):
    ours = medians[f"BM_{kind}Heads_MessageHeaders"]
    beast = medians[f"BM_{kind}Heads_Beast"]
    print(f"{kind:8} heads: MessageHeaders {ours:7.0f} ns/head ({allocs[f'BM_{kind}Heads_MessageHeaders']:.1f} allocs), "
          f"Beast {beast:7.0f} ns/head ({allocs[f'BM_{kind}Heads_Beast']:.1f} allocs), ratio {beast / ours:.2f}")
