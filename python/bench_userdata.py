#!/usr/bin/python3
"""Frames per second of korvex.read_frames(...) + userdata() against korvex-dump -q --json on the same
recording: a 1080p test pattern with noise at 4 Mbit/s, a key frame every 2 s (ffmpeg, libx264), wrapped by korvex-mkframe as the demo does (absolute
time, a VCA target, a plate and an OSD text in every frame, enhanced encryption), read with the key.

    bench_userdata.py [BUILD_DIR] [--frames N] [--runs R]

Each side runs R times on the file (in the page cache); the best run counts.
"""
import argparse
import os
import subprocess
import sys
import tempfile
import time


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build", nargs="?", default="build/default")
    ap.add_argument("--frames", type=int, default=500)
    ap.add_argument("--runs", type=int, default=5)
    args = ap.parse_args()
    sys.path.insert(0, os.path.join(args.build, "python"))
    import korvex

    tools = os.path.join(args.build, "tools")
    with tempfile.TemporaryDirectory() as tmp:
        raw, rec = os.path.join(tmp, "in.h264"), os.path.join(tmp, "sample.frames")
        subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                        "testsrc2=size=1920x1080:rate=25", "-vf", "noise=alls=12:allf=t", "-frames:v", str(args.frames),
                        "-c:v", "libx264", "-preset", "ultrafast", "-b:v", "4M", "-g", "50", "-pix_fmt", "yuv420p",
                        "-f", "h264", raw], check=True)
        subprocess.run([os.path.join(tools, "korvex-mkframe"), "-q", "--start-time", "2024-05-01T08:00:00Z",
                        "--fps", "25", "--vca", "1000,2000,4000,6000,7", "--plate", "AB123CD", "--osd", "Gate 3",
                        "--encrypt", "enhanced", "--key", "demo-key", "-o", rec, raw], check=True)
        size = os.path.getsize(rec)

        def python_side():
            n = 0
            for f in korvex.read_frames(rec, key="demo-key"):
                f.userdata()
                n += 1
            return n

        def dump_side():
            with open(os.devnull, "w") as null:
                subprocess.run([os.path.join(tools, "korvex-dump"), "-q", "--json", "--key", "demo-key", rec],
                               stdout=null, check=True)
            return args.frames

        results = {}
        for name, side in (("korvex.read_frames + userdata()", python_side), ("korvex-dump -q --json", dump_side)):
            best = None
            for _ in range(args.runs):
                t = time.perf_counter()
                n = side()
                dt = time.perf_counter() - t
                best = dt if best is None or dt < best else best
            results[name] = n / best
        print(f"1080p sample: {args.frames} frames, {size / 1e6:.1f} MB, enhanced encryption, user data in every frame")
        for name, fps in results.items():
            print(f"  {name}: {fps:,.0f} frames/s ({fps * size / args.frames / 1e6:,.0f} MB/s)")
        a, b = results.values()
        print(f"  ratio: {a / b:.2f}x")


if __name__ == "__main__":
    main()
