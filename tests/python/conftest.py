"""Shared fixtures: the bundled recordings and the two commands of the build under test."""
import os
import pathlib
import subprocess
import sys

import pytest

SOURCE_DIR = os.environ.get("KESTREL_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
BINARY_DIR = os.environ.get("KESTREL_BINARY_DIR", os.path.join(SOURCE_DIR, "build"))
SPEECH = os.path.join(SOURCE_DIR, "examples", "speech")
RECORDINGS = sorted(f[:-4] for f in os.listdir(SPEECH) if f.endswith(".wav"))
# Run by hand after the README's build (python3 -m pytest tests/python), the package is the
# build tree's unless PYTHONPATH names another.
if not os.environ.get("PYTHONPATH"):
    os.environ["PYTHONPATH"] = os.path.join(BINARY_DIR, "python")  # for the commands run in tests too
    sys.path.insert(0, os.environ["PYTHONPATH"])


def run(*args):
    """Runs a command, which must succeed without an error or a warning (list runs name each
    output on its own line; otherwise the commands print only errors and warnings)."""
    r = subprocess.run([str(a) for a in args], capture_output=True, text=True, timeout=300)
    assert r.returncode == 0 and "Error" not in r.stdout and "Warning" not in r.stdout, (args, r.stdout, r.stderr)
    assert r.stderr == "" and (r.stdout == "" or str(args[1]).startswith("--list=")), (args, r.stdout)


def sh(*args, status=0, env=None):
    """Runs a command, expects its exit status and returns what it printed."""
    r = subprocess.run([str(a) for a in args], capture_output=True, text=True, env=env, timeout=300)
    assert r.returncode == status, (args, r.stdout, r.stderr)
    return r.stdout


def same_bytes(a, b):
    return pathlib.Path(a).read_bytes() == pathlib.Path(b).read_bytes()


def wav(name):
    return os.path.join(SPEECH, name + ".wav")


def command(name):
    path = os.environ.get(name.upper()) or os.path.join(BINARY_DIR, name)
    assert os.access(path, os.X_OK), f"{path} is not built"
    return path


kestrelana = pytest.fixture(scope="session", name="kestrelana")(lambda: command("kestrelana"))
kestrelsyn = pytest.fixture(scope="session", name="kestrelsyn")(lambda: command("kestrelsyn"))
