"""korvex.export against korvex-export, readable signatures, and the buffers of calls that release the GIL:
a bytearray changed by another thread meanwhile, a file that shrinks during read_frames."""
import os
import subprocess
import threading
from datetime import datetime, timezone

import pytest

import korvex
from conftest import FRAMES, KEY, START_SECONDS


def run_export(*args):
    return subprocess.run([os.environ["KORVEX_EXPORT"], *args], capture_output=True, text=True)


def test_export_writes_what_korvex_export_writes(make_recording, tmp_path):
    path = make_recording("old-enhanced", encrypt="enhanced")
    start = datetime.fromtimestamp(START_SECONDS + 2, timezone.utc)  # frame 2: one frame a second
    got = korvex.export(path, tmp_path / "py.mkv", key=KEY, start=start, vtt=tmp_path / "py.vtt",
                        csv=tmp_path / "py.csv", json=tmp_path / "py.jsonl")
    tool = run_export("--key", KEY, "--from", str(START_SECONDS + 2), "-o", str(tmp_path / "cli.mkv"), "--vtt",
                      str(tmp_path / "cli.vtt"), "--csv", str(tmp_path / "cli.csv"), "--json",
                      str(tmp_path / "cli.jsonl"), str(path))
    assert tool.returncode == 0, tool.stderr
    for ext in ("vtt", "csv", "jsonl"):
        assert (tmp_path / f"py.{ext}").read_bytes() == (tmp_path / f"cli.{ext}").read_bytes()
    keys = [f.index for f in korvex.read_frames(path, key=KEY) if f.key_frame]
    first = max(k for k in keys if k <= 2)
    assert (got["first_frame"], got["last_frame"], got["frames"]) == (first, FRAMES - 1, FRAMES - first)
    assert got["device_times"] and got["start"] == datetime.fromtimestamp(START_SECONDS + first, timezone.utc)
    # From bytes, by frame numbers, into MP4.
    got = korvex.export(path.read_bytes(), str(tmp_path / "b.mp4"), key=KEY.encode(), frames=(3, 4))
    assert (got["first_frame"], got["last_frame"]) == (max(k for k in keys if k <= 3), 4)


def test_export_errors_leave_nothing(make_recording, tmp_path):
    path = make_recording("old-enhanced", encrypt="enhanced")
    cases = [(dict(key="wrong"), 1, "wrong key"), (dict(), 1, "give --key"),
             (dict(key=KEY, start="2030-01-01T00:00:00Z"), 1, "no frame between")]
    for kwargs, code, says in cases:
        with pytest.raises(korvex.ExportError) as e:
            korvex.export(path, tmp_path / "x.mp4", vtt=tmp_path / "x.vtt", **kwargs)
        assert e.value.code == code and says in e.value.message
    with pytest.raises(korvex.ExportError) as e:
        korvex.export(path, tmp_path / "x.avi", key=KEY)
    assert e.value.code == 2
    with pytest.raises(ValueError):
        korvex.export(path, tmp_path / "x.mp4", key=KEY, start="yesterday")
    assert list(tmp_path.iterdir()) == []


def test_signatures_name_the_types_a_caller_passes():
    for f in (korvex.read_frames, korvex.export, korvex.probe, korvex.encrypt_frame, korvex.iframe_index,
              korvex.stream_info, korvex.Frame.decrypt):
        first = f.__doc__.splitlines()[0]
        assert "handle" not in first and "object" not in first and ": " in first, first


def test_iframe_index_is_safe_from_a_thread_changing_the_block():
    # Many items, so that the library works long without the GIL; another thread meanwhile keeps
    # claiming items far larger than the block and taking it back: a walk that read the size again after
    # the library's check would step out of the block.
    n = 5000
    block = bytearray(44 + n * 16)
    block[32:40] = n.to_bytes(4, "little") + (16).to_bytes(4, "little")
    for i in range(n):
        block[44 + 16 * i + 4:44 + 16 * i + 12] = (i + 1).to_bytes(4, "little") + (1).to_bytes(4, "little")
    stop = threading.Event()

    def flip():
        while not stop.is_set():
            block[36:40] = (0x100000).to_bytes(4, "little")
            block[36:40] = (16).to_bytes(4, "little")

    t = threading.Thread(target=flip)
    t.start()
    try:
        for _ in range(100):
            try:
                assert len(korvex.iframe_index(block, 1)) == n
            except korvex.IndexBlockError as e:
                assert e.code == -104  # the size it read was the large one, checked against the copy
    finally:
        stop.set()
        t.join()


def test_file_that_shrinks_during_the_walk_ends_it_with_an_error(make_recording, tmp_path):
    # A recording of several hundred KiB, so that the walk reads it in pieces; a frame must straddle the
    # end of the first piece the walk has read (64 KiB) when the file is cut.
    one = make_recording("old-enhanced", encrypt="enhanced").read_bytes()
    data = one * (1 + (1 << 19) // len(one))
    ends = [f.offset + f.frame_len for f in korvex.read_frames(data)]
    while (1 << 16) in ends:
        data = one[:ends[0]] + data
        ends = [f.offset + f.frame_len for f in korvex.read_frames(data)]
    for strict in (True, False):
        path = tmp_path / f"shrinking-{strict}.frames"
        path.write_bytes(data)
        frames = korvex.read_frames(path, key=KEY, strict=strict)
        first = next(frames)
        os.truncate(path, first.frame_len + 40)
        if strict:
            with pytest.raises(korvex.FrameError) as e:
                list(frames)
            assert e.value.code == -104 and "truncated" in e.value.message
        else:
            rest = list(frames)
            assert len(rest) < len(ends) - 1 and "truncated" in rest[-1].error
