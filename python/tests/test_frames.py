"""Recordings made with korvex-mkframe, read back through the module and compared with korvex-dump."""
from datetime import datetime, timedelta, timezone
import ast
import csv
import os
import struct
import subprocess
import sys
from pathlib import Path

import pytest

import korvex
from conftest import FRAMES, KEY, START_SECONDS, json_times

CASES = [(layout, cipher) for layout in ("old", "new") for cipher in ("plain", "enhanced")]


def analysis(layout):
    # New containers are found by the two-layout analysis; the old ones by either.
    return "all" if layout == "new" else None


@pytest.mark.parametrize("layout,cipher", CASES)
def test_recording_reads_back(make_recording, layout, cipher):
    path = make_recording(f"{layout}-{cipher}", layout=layout, encrypt=cipher)
    frames = list(korvex.read_frames(path, key=KEY, mask=analysis(layout)))
    assert len(frames) == FRAMES
    start = datetime.fromtimestamp(START_SECONDS, timezone.utc)
    for i, f in enumerate(frames):
        assert (f.index, f.frame_no, f.valid, f.error) == (i, i + 1, True, None)
        # What the frame was in the recording, and clear now.
        assert (f.encrypted, f.mode, f.decrypted) == (True, cipher, True)
        assert f.key_frame == (f.report()["key_frame"] is True)
        assert f.flags & 3 == 2 and ((f.flags >> 6) & 3 == 2) == (cipher == "enhanced")
        assert bytes(f.payload[:4]) == b"\0\0\0\1" and len(f.payload) == f.payload_len
        assert bytes(f.data[32:]) == bytes(f.payload) and len(f.data) == f.frame_len
        ud = f.userdata()
        assert ud["status"] == "ok" and ud["codec"] == "h264"
        assert ud["time"] == {"utc": start + timedelta(seconds=i), "seconds": START_SECONDS + i}
        assert ud["plates"] == ["AB123CD", "XY9"]
        assert [(o["subtype"], o["text"]) for o in ud["osd"]] == [(7, "Gate 3")]
        (target,) = ud["vca"]
        assert target["unscaled"] == [1000, 2000, 4000, 6000] and target["words"] == [7, 0, 0, 0]
        assert target["layout"] == layout
        assert [r["hex"] for r in ud["records"] if r["type"] == 15] == ["0102030405"]


@pytest.mark.parametrize("layout,cipher", CASES + [("old", None)])
@pytest.mark.parametrize("keyed", [True, False])
def test_userdata_equals_korvex_dump(make_recording, dump, layout, cipher, keyed):
    path = make_recording(f"{layout}-{cipher}", layout=layout, encrypt=cipher)
    for mask in (None, "all"):
        args = (["--key", KEY] if keyed else []) + (["--mask", mask] if mask else []) + [str(path)]
        expected = [json_times(line) for line in dump(*args)]
        frames = list(korvex.read_frames(path.read_bytes(), key=KEY if keyed else None, mask=mask))
        assert [f.report() for f in frames] == expected
        assert [f.userdata() for f in frames] == [line.get("userdata") for line in expected]


def test_h265_and_split_state_across_frames(make_recording, dump):
    path = make_recording("h265", source="testsrc_main.h265", encrypt="enhanced")
    frames = list(korvex.read_frames(path, key=KEY, codec="h265"))
    assert frames and all(f.userdata()["codec"] == "h265" for f in frames)
    assert [f.report() for f in frames] == [json_times(x) for x in dump("--key", KEY, "--codec", "h265", str(path))]


def test_decrypt_later_and_wrong_key(make_recording):
    path = make_recording("old-enhanced", encrypt="enhanced")
    first = next(korvex.read_frames(path))
    assert first.encrypted and first.mode == "enhanced"
    assert first.userdata() == {"analysed": False, "reason": "encrypted; give --key to decrypt"}
    with pytest.raises(korvex.WrongKeyError) as e:
        first.decrypt("wrong")
    assert e.value.code == -4 and "wrong key" in e.value.message
    assert first.encrypted and not first.decrypted and not first.key_frame  # unchanged by the failed attempt
    first.decrypt(KEY.encode())
    assert (first.encrypted, first.mode, first.decrypted, first.key_frame) == (True, "enhanced", True, True)
    assert first.userdata()["plates"] == ["AB123CD", "XY9"]
    with pytest.raises(korvex.CipherError) as e:
        first.decrypt(KEY)
    assert e.value.code == -3

    with pytest.raises(korvex.WrongKeyError) as e:
        list(korvex.read_frames(path, key="wrong"))
    assert e.value.code == -4 and e.value.message.startswith("frame 0 at offset 0:")
    broken = list(korvex.read_frames(path, key="wrong", strict=False))
    assert len(broken) == FRAMES and all("wrong key" in f.error for f in broken)
    for bad in ("", "x" * 17):
        with pytest.raises(korvex.CipherError) as e:
            korvex.read_frames(path, key=bad)
        assert e.value.code == -2


def test_broken_files(make_recording, tmp_path):
    good = make_recording("old-None").read_bytes()
    first_len = struct.unpack_from("<I", good, 4)[0]

    cut = good[: len(good) - 10]
    with pytest.raises(korvex.FrameError) as e:
        list(korvex.read_frames(cut))
    assert e.value.code == -104 and "truncated" in e.value.message
    frames = list(korvex.read_frames(cut, strict=False))
    assert len(frames) == FRAMES and frames[-1].held == frames[-1].frame_len - 10

    # A broken header in front of the second frame: strict stops there, otherwise the walk finds the
    # third frame again.
    smashed = bytearray(good)
    smashed[first_len + 4:first_len + 8] = b"\xff\xff\xff\xff"
    with pytest.raises(korvex.FrameError) as e:
        list(korvex.read_frames(bytes(smashed)))
    assert e.value.code == -102 and "frame 1 at offset" in e.value.message
    frames = list(korvex.read_frames(smashed, strict=False))
    assert [f.valid for f in frames] == [True, False] + [True] * (FRAMES - 2)
    assert frames[1].userdata() is None and frames[2].frame_no == 3

    for junk in (b"\x01", b"no frame here at all, just some text that goes on" * 3):
        with pytest.raises(korvex.FrameError):
            list(korvex.read_frames(junk))
    assert list(korvex.read_frames(b"")) == []
    empty = tmp_path / "empty"
    empty.write_bytes(b"")
    assert list(korvex.read_frames(empty)) == []
    with pytest.raises(FileNotFoundError):
        korvex.read_frames(tmp_path / "missing")
    with pytest.raises(TypeError):
        korvex.read_frames(12)


def test_broken_files_equal_korvex_dump(make_recording, dump, tmp_path):
    good = make_recording("old-None").read_bytes()
    first_len = struct.unpack_from("<I", good, 4)[0]
    # The first frame claims 100 bytes more (frame and payload length alike, so its header is sound):
    # it is read up to the second frame's header, and the second frame stays whole.
    long = bytearray(good)
    for at in (4, 20):
        struct.pack_into("<I", long, at, struct.unpack_from("<I", long, at)[0] + 100)
    smashed = bytearray(good)
    smashed[first_len + 4:first_len + 8] = b"\xff\xff\xff\xff"
    for name, data in (("long", long), ("smashed", smashed), ("cut", good[:-10]), ("tail", good + b"\0" * 7)):
        path = tmp_path / f"{name}.frames"
        path.write_bytes(data)
        expected = [json_times(line) for line in dump(str(path))]
        frames = list(korvex.read_frames(path, strict=False))
        assert [f.report() for f in frames] == expected, name
        with pytest.raises(korvex.FrameError):
            list(korvex.read_frames(path))
    frames = list(korvex.read_frames(long, strict=False))
    assert [(f.index, f.offset, f.held) for f in frames[:2]] == [(0, 0, first_len), (1, first_len, frames[1].frame_len)]
    assert "next frame header follows" in frames[0].error and frames[1].error is None and len(frames) == FRAMES


def test_encrypt_frame_round_trip(make_recording):
    clear = next(korvex.read_frames(make_recording("old-None")))
    for mode in ("plain", "enhanced"):
        sealed = korvex.encrypt_frame(clear, KEY, mode)
        (f,) = korvex.read_frames(sealed)
        assert f.encrypted and f.mode == mode and bytes(f.payload) != bytes(clear.payload)
        f.decrypt(KEY)
        assert bytes(f.payload) == bytes(clear.payload) and f.userdata() == clear.userdata()
    with pytest.raises(korvex.FrameError) as e:
        korvex.encrypt_frame(b"\0" * 31, KEY, "plain")
    with pytest.raises(ValueError):
        korvex.encrypt_frame(clear, KEY, "rot13")


def test_probe_stream_info_and_index(make_recording, dump, data_dir, tmp_path):
    assert korvex.probe((data_dir / "testsrc_high.h264").read_bytes()) == "h264"
    assert korvex.probe(bytearray((data_dir / "testsrc_main.h265").read_bytes())) == "h265"
    assert korvex.probe(b"\0\0\1") is None

    frame = next(korvex.read_frames(make_recording("old-None")))
    head = struct.pack("<HHH", 7, 8, 9) + bytes(82)
    info = korvex.stream_info(head, frame.data)
    assert info == {"head_word0": 7, "head_word2": 8, "head_word4": 9, "frame_info": frame.info,
                    "frame_attr": frame.attr, "stream_kind": 1, "stream_reserved": 0}
    assert korvex.stream_info(head, frame) == info
    with pytest.raises(korvex.Error) as e:
        korvex.stream_info(head[:87], frame)
    assert e.value.code == -5
    with pytest.raises(korvex.FrameError):
        korvex.stream_info(head, bytes(40))

    # The index korvex-mkframe writes, and one with restarts, short items and long items, each compared
    # with korvex-dump --index (which asks the library for every match from the start of the block).
    index_path = make_recording("indexed", index=True).with_suffix(".index")
    stamps = [(0, 1), (9, 3), (9, 2), (3, 1), (-1, 0), (4, 7)]
    blocks = [index_path.read_bytes()]
    for item_size in (8, 12, 100):
        items = b"".join(struct.pack("<IiI", 100 + n, st, m).ljust(item_size, b"\xee")[:item_size]
                         for n, (st, m) in enumerate(stamps))
        blocks.append(bytes(32) + struct.pack("<II", len(stamps), item_size) + bytes(4) + items)
    for n, block in enumerate(blocks):
        path = tmp_path / f"{n}.index"
        path.write_bytes(block)
        for sign in range(6):
            assert korvex.iframe_index(block, sign) == dump("--index", str(sign), str(path))[0]["found"]
    assert [x["restarts"] for x in korvex.iframe_index(blocks[2])] == [1, 1, 2, 3, 4, 4]
    with pytest.raises(korvex.IndexBlockError) as e:
        korvex.iframe_index(blocks[0][:44])
    assert e.value.code == -104
    with pytest.raises(korvex.IndexBlockError) as e:
        korvex.iframe_index(blocks[0], 6)
    assert e.value.code == -100


def test_plates_to_csv_example(make_recording, tmp_path):
    script = Path(__file__).resolve().parents[2] / "examples" / "python" / "plates_to_csv.py"
    path = make_recording("old-enhanced", encrypt="enhanced")
    out = tmp_path / "plates.csv"
    run = [sys.executable, str(script), "--key", KEY, str(path), str(out)]
    subprocess.run(run, check=True, env=os.environ, capture_output=True)
    rows = list(csv.reader(out.open()))
    assert rows[0] == ["frame", "frame_no", "time_utc", "plate"] and len(rows) == 1 + 2 * FRAMES
    assert rows[1:3] == [["0", "1", "2024-05-01T08:00:00+00:00", "AB123CD"], ["0", "1", "2024-05-01T08:00:00+00:00", "XY9"]]
    run[3] = "wrong"
    assert subprocess.run(run, env=os.environ, capture_output=True).returncode == 1


def test_stub_names_the_module_api():
    stub = ast.parse((Path(__file__).resolve().parents[1] / "korvex.pyi").read_text())
    top = {n.name for n in stub.body if isinstance(n, (ast.ClassDef, ast.FunctionDef))}
    assert top == {n for n in dir(korvex) if not n.startswith("_")} - {"__version__"}
    (frame,) = [n for n in stub.body if isinstance(n, ast.ClassDef) and n.name == "Frame"]
    assert {n.name for n in frame.body if isinstance(n, ast.FunctionDef)} == \
        {n for n in dir(korvex.Frame) if not n.startswith("_")}
    for name in top:
        assert getattr(korvex, name).__doc__, name
