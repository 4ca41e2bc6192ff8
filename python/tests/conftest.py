"""Shared fixtures: the tools and recordings made with korvex-mkframe. The tool paths come from the
build (ctest sets them); a missing tool is an error, never a skip."""
import json
import os
import subprocess
from pathlib import Path

import pytest

import korvex

KEY = "secret-key"
START = "2024-05-01T08:00:00Z"
START_SECONDS = 1714550400
FRAMES = 6


def tool(name):
    path = os.environ.get(name)
    if not path or not os.access(path, os.X_OK):
        pytest.fail(f"{name} is not set to the built tool (run the tests through ctest or make python)")
    return path


@pytest.fixture(scope="session")
def dump():
    path = tool("KORVEX_DUMP")

    def run(*args):
        """korvex-dump --json: one object per frame (or one object for --index)."""
        p = subprocess.run([path, "--json", *args], capture_output=True, text=True, check=False)
        assert p.returncode in (0, 1), p.stderr
        return [json.loads(line) for line in p.stdout.splitlines()]

    return run


@pytest.fixture(scope="session")
def data_dir():
    return Path(os.environ.get("KORVEX_TEST_DATA", Path(__file__).resolve().parents[2] / "tests" / "data"))


@pytest.fixture(scope="session")
def make_recording(tmp_path_factory, data_dir):
    mkframe = tool("KORVEX_MKFRAME")
    out_dir = tmp_path_factory.mktemp("recordings")

    def make(name, *, source="testsrc_high.h264", layout="old", encrypt=None, index=False, user_data=True):
        out = out_dir / f"{name}.frames"
        args = [mkframe, "-q", "--max-frames", str(FRAMES), "--layout", layout, "-o", str(out)]
        if user_data:
            args += ["--start-time", START, "--fps", "1", "--vca", "1000,2000,4000,6000,7",
                     "--plate", "AB123CD", "--plate", "XY9", "--osd", "Gate 3", "--block", "0xFEE2:0102030405"]
        if encrypt:
            args += ["--encrypt", encrypt, "--key", KEY]
        if index:
            args += ["--index-out", str(out_dir / f"{name}.index")]
        subprocess.run(args + [str(data_dir / source)], check=True)
        return out

    return make


def json_times(value):
    """korvex-dump's JSON with its "utc" texts as the module gives them: datetime in UTC."""
    if isinstance(value, dict):
        return {k: (korvex_time(v) if k == "utc" else json_times(v)) for k, v in value.items()}
    if isinstance(value, list):
        return [json_times(v) for v in value]
    return value


def korvex_time(text):
    from datetime import datetime, timezone
    return datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc)
