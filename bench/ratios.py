#!/usr/bin/env python3
"""Runs every bench_* program and prints each hot path beside its peer, with the ratio and the target.

usage: ratios.py [BENCH_DIR] [--min-time SECONDS] [--from DIR]

The programs print their own tables as they run; their JSON results go to a scratch directory (or
are read back from --from DIR, a directory of earlier results) and the closing table is Markdown.
Times are per iteration: CPU time, or wall time for benchmarks that run on real time (the link,
whose figure is the median of three runs).
"""
import argparse
import glob
import json
import os
import subprocess
import sys
import tempfile

# OpenSSL chooses its AES code from these CPU feature masks once, when it starts.
MASKS = {
    "soft": "~0x200000000000000",   # AES-NI off: its SSSE3 vector-permutation AES
    "table": "~0x200020000000000",  # AES-NI and SSSE3 off: its table-driven AES
}
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def run(prog, out, min_time, env=None, extra=(), quiet=False):
    args = [prog, "--benchmark_out=" + out, "--benchmark_out_format=json",
            "--benchmark_min_time=%g" % min_time] + list(extra)
    subprocess.run(args, env=env, check=False, stdout=subprocess.DEVNULL if quiet else None)


def load(path, prefix=""):
    try:
        with open(path) as f:
            data = json.load(f)
    except (OSError, ValueError):
        return {}
    records = {}
    for b in data.get("benchmarks", []):
        if b.get("run_type") != "aggregate":
            records.setdefault(prefix + b["name"], b)
        elif b.get("aggregate_name") == "median":  # repeated runs: the median stands for them
            records[prefix + b["run_name"]] = b
    return records


class Results:
    def __init__(self, records):
        self.r = records

    def ns(self, name):
        """Nanoseconds per iteration, or None when the benchmark did not run."""
        b = self.r.get(name)
        if b is None:
            return None
        t = b["real_time"] if name.endswith("real_time") else b["cpu_time"]
        return t * UNIT_NS[b.get("time_unit", "ns")]


def fmt_ns(v):
    return "-" if v is None else ("%.0f ns" % v if v >= 100 else "%.1f ns" % v)


def fmt_rate(nbytes, ns):
    if ns is None:
        return "-"
    mbs = nbytes / ns * 1e3
    return "%.2f GB/s" % (mbs / 1e3) if mbs >= 1000 else "%.0f MB/s" % mbs


def div(a, b):
    return None if a is None or b is None or b == 0 else a / b


def sub(a, b):
    return None if a is None or b is None else a - b


def table(res):
    rows = []  # (what, ours, peer, ratio text, target, met)

    def add(what, ours, peer, ratio, target="report", limit=None, at_most=True):
        if ratio is None:
            met = "not measured"
        elif limit is None:
            met = ""
        else:
            met = "yes" if (ratio <= limit if at_most else ratio >= limit) else "**no**"
        rows.append((what, ours, peer, ratio, target, met))

    blocks = 1024
    aes = div(res.ns("BM_TableAesEncrypt"), blocks)
    for key, label, limit in (("soft", "OpenSSL software AES (AES-NI off)", 1.3),
                              ("table", "OpenSSL table AES (AES-NI, SSSE3 off)", None),
                              ("", "OpenSSL with AES-NI", None)):
        peer = div(res.ns(key + "BM_OpenSslAesEncrypt"), blocks)
        add("table AES `encrypt`, per block", fmt_ns(aes), "%s: %s" % (label, fmt_ns(peer)),
            div(aes, peer), "within 1.3x" if limit else "report", limit)
    ecb = div(res.ns("BM_BytewiseAesEncrypt"), blocks)
    add("byte-wise AES, per block", fmt_ns(ecb), "OpenSSL software AES: %s" % fmt_ns(
        div(res.ns("softBM_OpenSslAesEncrypt"), blocks)), div(ecb, div(res.ns("softBM_OpenSslAesEncrypt"), blocks)))
    ctr = res.ns("BM_BytewiseAesCtr")
    for key, label in (("soft", "OpenSSL software AES CTR"), ("", "OpenSSL AES-NI CTR")):
        peer = res.ns(key + "BM_OpenSslAesCtr")
        add("byte-wise AES CTR", fmt_rate(16 * blocks, ctr), "%s: %s" % (label, fmt_rate(16 * blocks, peer)),
            div(ctr, peer))
    md5, peer = res.ns("BM_Md5/65536"), res.ns("BM_OpenSslMd5/65536")
    add("MD5 (`MD5_Encrypt`), 64 KiB", fmt_rate(65536, md5), "OpenSSL MD5: %s" % fmt_rate(65536, peer),
        div(md5, peer), "within 1.2x", 1.2)
    copy = res.ns("BM_FrameMemcpy/100000")
    for mode in ("Plain", "Enhanced"):
        dec = sub(res.ns("BM_Decrypt%s/100000" % mode), res.ns("BM_Restore%s/100000" % mode))
        add("`SA_DecryptOneFrame` %s, 100 KB frame" % mode.lower(), fmt_ns(dec),
            "memcpy of the frame: %s" % fmt_ns(copy), div(dec, copy))
    copy10 = res.ns("BM_MemcpyFramePlus10KiB")
    for name, label in (("BM_SingleFrameAllTypes", "`SA_GetUserDataInfoEx` single-frame analysis"),
                        ("BM_TwoLayoutOldContainer", "`SA_GetUserDataInfoEx` two-layout analysis, old container"),
                        ("BM_TwoLayoutNewContainer", "`SA_GetUserDataInfoEx` two-layout analysis, new container")):
        ours = res.ns(name)
        add("%s, 100 KB frame" % label, fmt_ns(ours), "memcpy of the frame + 10 KiB: %s" % fmt_ns(copy10),
            div(ours, copy10), "within 3x", 3.0)
    floor = res.ns("BM_SmallFloor")
    for name, label in (("BM_SmallSingleFrameAllTypes", "`SA_GetUserDataInfoEx` single-frame analysis"),
                        ("BM_SmallTwoLayoutOldContainer", "`SA_GetUserDataInfoEx` two-layout analysis, old container"),
                        ("BM_SmallTwoLayoutNewContainer", "`SA_GetUserDataInfoEx` two-layout analysis, new container")):
        ours = res.ns(name)
        add("%s, small frame" % label, fmt_ns(ours),
            "floor: clearing 10 KiB + copying the container: %s" % fmt_ns(floor), div(ours, floor),
            "within 2x", 2.0)
    scan, peer = res.ns("BM_HeadScan"), res.ns("BM_Memchr")
    rate = None if scan is None else (1 << 20) / scan
    add("`protocol_parase_net_data`, 1 MiB of noise", fmt_rate(1 << 20, scan),
        "memchr: %s" % fmt_rate(1 << 20, peer), rate, "at least 1 GB/s", 1.0, at_most=False)
    for way in ("Receive", "Send"):
        for body in (64, 1440):
            ours = res.ns("BM_Link%s/%d/real_time" % (way, body))
            nbytes = 4096 * (20 + body)
            pps = "-" if ours is None else "%.0f kpkt/s" % (4096 / ours * 1e6)
            peers = [("raw send/recv", "BM_RawSend/%d/real_time" % body, True)]
            if way == "Receive":
                peers = [("raw send/recv", "BM_RawReceive/%d/65536/real_time" % body, True),
                         ("raw recv of 2 KiB at a time", "BM_RawReceive/%d/2048/real_time" % body, False)]
            for label, name, target in peers:
                peer = res.ns(name)
                add("link %s, %d-byte bodies" % (way.lower(), body), "%s, %s" % (fmt_rate(nbytes, ours), pps),
                    "%s: %s" % (label, fmt_rate(nbytes, peer)), div(peer, ours),
                    "at least 50%" if target else "report (%)", 0.5 if target else None, at_most=False)
    ours = res.ns("BM_LinkSendData/real_time")
    nbytes = 64 * (65536 + 20 * 46)
    for arg, label, target in ((0, "raw send of the same bytes", True),
                               (1, "raw, a send per head and per body", False)):
        peer = res.ns("BM_RawSendData/%d/real_time" % arg)
        add("link `net_link_send_data`, 64 KiB messages", fmt_rate(nbytes, ours),
            "%s: %s" % (label, fmt_rate(nbytes, peer)), div(peer, ours),
            "at least 70%" if target else "report (%)", 0.7 if target else None, at_most=False)
    pap, peer = res.ns("BM_PapRunCmd"), res.ns("BM_StrtokSplit")
    add("`pap_run_cmd`, 3 keys and 2 parameters", fmt_ns(pap), "strtok split: %s" % fmt_ns(peer), div(pap, peer))
    peer = res.ns("BM_FprintfFlush")
    for name, label in (("BM_LogSuppressed", "suppressed"), ("BM_LogToFile", "to the log file")):
        ours = res.ns(name)
        add("`sdk_log_msg` %s" % label, fmt_ns(ours), "fprintf + fflush: %s" % fmt_ns(peer), div(ours, peer))

    out = ["| What | Ours | Peer or limit | Ratio | Target | Met |", "|---|---|---|---|---|---|"]
    for what, ours, peer, ratio, target, met in rows:
        if ratio is None:
            text = "-"
        elif "GB/s" in target:
            text = "%.2f GB/s" % ratio
        elif "%" in target:
            text = "%.0f%% of raw" % (ratio * 100)
        else:
            text = "%.2fx" % ratio
        out.append("| %s | %s | %s | %s | %s | %s |" % (what, ours, peer, text, target, met))
    return "\n".join(out)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("bench_dir", nargs="?", default="build/bench/bench")
    ap.add_argument("--min-time", type=float, default=0.2)
    ap.add_argument("--from", dest="from_dir", help="read the JSON results of an earlier run from here")
    args = ap.parse_args()

    out_dir = args.from_dir or tempfile.mkdtemp(prefix="kx_bench_")
    if not args.from_dir:
        progs = sorted(p for p in glob.glob(os.path.join(args.bench_dir, "bench_*")) if os.access(p, os.X_OK))
        if not progs:
            sys.exit("no bench_* programs in %s" % args.bench_dir)
        for prog in progs:
            name = os.path.basename(prog)
            print("== %s" % name, flush=True)
            # Loopback figures swing with the load of the machine: the link runs three times.
            extra = ["--benchmark_repetitions=3"] if name == "bench_link" else []
            run(prog, os.path.join(out_dir, name + ".json"), args.min_time, extra=extra)
            if name == "bench_crypto":
                for key, mask in MASKS.items():
                    env = dict(os.environ, OPENSSL_ia32cap=mask)
                    run(prog, os.path.join(out_dir, "%s.%s.json" % (name, key)), args.min_time, env,
                        ["--benchmark_filter=BM_OpenSslAes"], quiet=True)
    records = {}
    for path in glob.glob(os.path.join(out_dir, "bench_*.json")):
        parts = os.path.basename(path).split(".")
        records.update(load(path, parts[1] if len(parts) == 3 else ""))
    print("\nRatios (JSON results in %s):\n" % out_dir)
    print(table(Results(records)))


if __name__ == "__main__":
    main()
