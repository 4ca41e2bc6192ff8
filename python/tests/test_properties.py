"""Any bytes through the module: an exception of the module's own kinds at worst, never a crash, a hang
or a leak. Hypothesis runs derandomized, so every run sees the same examples."""
import random
import struct

import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

import korvex
from conftest import KEY

settings.register_profile("korvex", deadline=None, database=None, derandomize=True, max_examples=200,
                          suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])
settings.load_profile("korvex")


@pytest.fixture(scope="module")
def recordings(make_recording):
    return [make_recording("old-enhanced", encrypt="enhanced").read_bytes(),
            make_recording("new-plain", layout="new", encrypt="plain").read_bytes(),
            make_recording("h265", source="testsrc_main.h265", encrypt="enhanced").read_bytes()]


def exercise(data):
    """Every call of the module on data; only korvex.Error may come out."""
    for mask in (None, "all"):
        for f in korvex.read_frames(data, key=KEY, strict=False, mask=mask):
            f.userdata()
            f.report()
            bytes(f.payload)
            if f.encrypted:
                try:
                    f.decrypt(KEY)
                except korvex.Error:
                    pass
    try:
        for f in korvex.read_frames(data, codec="h265"):
            f.userdata()
    except korvex.Error:
        pass
    korvex.probe(data)
    for call in (lambda: korvex.iframe_index(data, 1), lambda: korvex.stream_info(data[:88], data),
                 lambda: korvex.encrypt_frame(data, KEY, "enhanced")):
        try:
            call()
        except korvex.Error:
            pass


def frame(body, flags=0, frame_no=1):
    return struct.pack("<IIBxxxIIIHHxxH", 0, 32 + len(body), 0, frame_no, 0, len(body), 0, 0, flags) + body


# A body that the user-data analysis looks into: an SEI or H.265 user-data unit with a container type.
user_data_body = st.builds(lambda prefix, rest: prefix + rest,
                           st.sampled_from([b"\0\0\0\1\x06\xf0", b"\0\0\0\1\x06\xf1", b"\0\0\0\1\x4e\x01\xf0",
                                            b"\0\0\0\1\x4e\x01\xf1", b"\0\0\0\1"]),
                           st.binary(max_size=600))


@given(st.binary(max_size=3000))
def test_random_bytes(data):
    exercise(data)


@given(st.lists(st.tuples(user_data_body, st.integers(0, 0xFFFF), st.integers(0, 5)), min_size=1, max_size=4))
def test_random_frames(parts):
    exercise(b"".join(frame(body, flags, no) for body, flags, no in parts))


@given(st.data())
def test_mutated_recordings(recordings, data):
    rec = bytearray(data.draw(st.sampled_from(recordings)))
    for _ in range(data.draw(st.integers(1, 8))):
        at = data.draw(st.integers(0, len(rec) - 1))
        kind = data.draw(st.sampled_from(["byte", "cut", "insert"]))
        if kind == "byte":
            rec[at] = data.draw(st.integers(0, 255))
        elif kind == "cut":
            del rec[at:at + data.draw(st.integers(1, 64))]
        else:
            rec[at:at] = data.draw(st.binary(min_size=1, max_size=64))
        if not rec:
            break
    exercise(bytes(rec))


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * 4096


def test_no_leak_over_many_broken_inputs(recordings):
    rng = random.Random(18)

    def one_round():
        rec = bytearray(rng.choice(recordings))
        for _ in range(rng.randint(1, 6)):
            rec[rng.randrange(len(rec))] = rng.randrange(256)
        exercise(bytes(rec))

    for _ in range(300):  # the allocators settle first
        one_round()
    before = rss_bytes()
    for _ in range(3000):
        one_round()
    grown = rss_bytes() - before
    # Each round copies about 20 frames: a leak of a frame copy or of a walk's split-state record
    # would add tens of megabytes.
    assert grown < 3 * 1024 * 1024, f"RSS grew by {grown} bytes over 3000 rounds"
