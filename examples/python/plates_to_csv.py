#!/usr/bin/python3
"""Writes every licence plate of a recording with its time to CSV: frame, frame number, time (ISO 8601
UTC, empty when the frame carries no time), plate.

    plates_to_csv.py [--key KEY] [--mask all] RECORDING [OUT.csv]

Without OUT.csv the rows go to standard output. Broken frames are reported on standard error and
skipped; a wrong key stops the run (exit status 1).
"""
import argparse
import csv
import sys

import korvex


def main():
    ap = argparse.ArgumentParser(description="Every licence plate of a recording with its time, as CSV.")
    ap.add_argument("recording", help="a file of frames")
    ap.add_argument("out", nargs="?", help="the CSV file (default: standard output)")
    ap.add_argument("--key", help="decrypt encrypted frames with KEY")
    ap.add_argument("--mask", help="the two-layout analysis, as korvex-dump --mask (a number or all)")
    args = ap.parse_args()
    mask = None if args.mask is None else args.mask if args.mask == "all" else int(args.mask, 0)

    out = open(args.out, "w", newline="") if args.out else sys.stdout
    writer = csv.writer(out)
    writer.writerow(["frame", "frame_no", "time_utc", "plate"])
    rows = 0
    try:
        for frame in korvex.read_frames(args.recording, key=args.key, strict=False, mask=mask):
            if frame.error:
                print(f"plates_to_csv: frame {frame.index}: {frame.error}", file=sys.stderr)
                if frame.report().get("decrypt") == "failed":
                    return 1  # a wrong key fails on every frame
            ud = frame.userdata() or {}
            when = ud.get("time", {}).get("utc")
            for plate in ud.get("plates", []):
                writer.writerow([frame.index, frame.frame_no, when.isoformat() if when else "", plate])
                rows += 1
    except korvex.Error as e:
        print(f"plates_to_csv: {args.recording}: {e}", file=sys.stderr)
        return 1
    finally:
        if out is not sys.stdout:
            out.close()
    print(f"{rows} plates", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
