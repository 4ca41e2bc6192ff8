#!/usr/bin/env python3
"""Runs the video-server shapes of korvex_fleet beside the same shapes of the libuv anchor (uvvideo),
interleaved (round by round, shape by shape, the two back to back, their order swapped every other
round), and prints the medians of each figure and korvex's ratio to the anchor with the targets.

usage: fleet_video.py KORVEX_FLEET [UVVIDEO] [--rounds 3] [--seconds 10] [--shapes cameras:100,...]

Fails (exit 1) when a korvex run fails its own checks: a link not connected, a packet lost, out of
order or malformed, a ping unanswered, a send refused. The ratio targets are reported as met or
missed; they swing with the load of the shared machine, so they are figures, not checks.
"""
import argparse
import statistics
import subprocess
import sys

# (shape, figure, target ratio korvex/anchor or absolute, kind)
TARGETS = {
    "cameras": [("cpu_per_gbps", 1.0, "ratio"), ("lag_p50_ms", 1.5, "ratio"), ("lag_p99_ms", 1.0, "ratio")],
    "control": [("cpu_per_gbps", 1.0, "ratio"), ("lag_p50_ms", 1.5, "ratio"), ("lag_p99_ms", 1.0, "ratio"),
                ("rtt_p99_ms", 1.0, "ratio")],
    "send": [("cpu_per_gbps", 1.0, "ratio"), ("lag_p99_ms", 5.0, "ms")],
}
SHOWN = {
    "cameras": ["gbps", "cores", "cpu_per_gbps", "lag_p50_ms", "lag_p99_ms", "lag_max_ms", "machine_cores"],
    "control": ["gbps", "cpu_per_gbps", "lag_p50_ms", "lag_p99_ms", "rtt_p50_ms", "rtt_p99_ms", "rtt_max_ms",
                "machine_cores"],
    "send": ["gbps", "cores", "cpu_per_gbps", "lag_p50_ms", "lag_p99_ms", "lag_max_ms", "machine_cores"],
}


def run(cmd):
    try:
        out = subprocess.run(cmd, capture_output=True, text=True, timeout=240).stdout
    except subprocess.TimeoutExpired:
        return None, "timed out"
    for line in out.splitlines():
        if line.startswith("RESULT "):
            fields = dict(kv.split("=", 1) for kv in line.split()[1:] if "=" in kv)
            return fields, line
    return None, out[-400:]


def korvex_ok(f):
    if f is None:
        return False
    n = int(f.get("n", 0))
    checks = [int(f.get("connected", 0)) >= n, f.get("lost") == "0", f.get("ooo") == "0", f.get("bad") == "0"]
    if f.get("mode") == "control":
        checks.append(f.get("unanswered") == "0")
    if f.get("mode") == "send":
        checks.append(f.get("send_failures") == "0")
    return all(checks)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("korvex")
    ap.add_argument("anchor", nargs="?", default="")
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--seconds", type=int, default=10)
    ap.add_argument("--shapes", default="cameras:100,cameras:1000,control:100,send:1000")
    a = ap.parse_args()
    shapes = [(s.split(":")[0], s.split(":")[1]) for s in a.shapes.split(",")]
    impls = [("korvex", [a.korvex])] + ([("libuv", [a.anchor])] if a.anchor else [])
    results = {}  # (shape, n, impl) -> [fields]
    failed = 0
    for r in range(a.rounds):
        for shape, n in shapes:
            order = impls if r % 2 == 0 else impls[::-1]
            for impl, base in order:
                f, line = run(base + [shape, n, str(a.seconds)])
                print("round %d %s: %s" % (r + 1, impl, line if f else "no RESULT: " + line), flush=True)
                if impl == "korvex" and not korvex_ok(f):
                    failed += 1
                if f:
                    results.setdefault((shape, n, impl), []).append(f)

    def med(shape, n, impl, key):
        v = [float(f[key]) for f in results.get((shape, n, impl), []) if key in f]
        return statistics.median(v) if v else None

    print("\nMedians of %d rounds, %d s windows (korvex / libuv = ratio; load = loadavg of the last run):" %
          (a.rounds, a.seconds))
    for shape, n in shapes:
        runs = results.get((shape, n, "korvex"), [])
        load = runs[-1].get("load", "?") if runs else "?"
        parts = []
        for key in SHOWN[shape]:
            k, u = med(shape, n, "korvex", key), med(shape, n, "libuv", key)
            if k is None:
                continue
            if u:
                parts.append("%s %.4g / %.4g = %.2fx" % (key, k, u, k / u))
            else:
                parts.append("%s %.4g" % (key, k))
        print("  %s %s: %s | load %s" % (shape, n, "; ".join(parts), load))
        verdicts = []
        for key, target, kind in TARGETS[shape]:
            k, u = med(shape, n, "korvex", key), med(shape, n, "libuv", key)
            if k is None:
                continue
            if kind == "ms":
                verdicts.append("%s %.3g ms (target < %g ms: %s)" % (key, k, target, "met" if k < target else "MISSED"))
            elif u:
                verdicts.append("%s %.2fx (target <= %gx: %s)" % (key, k / u, target,
                                                                   "met" if k / u <= target else "MISSED"))
        print("    targets: " + "; ".join(verdicts))
    print("fleet video: %d korvex runs failed their packet checks" % failed)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
