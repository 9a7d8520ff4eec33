"""Fixtures of the kelo module's tests. The module comes from KELO_PYTHON_DIR (CTest sets it),
never from an installed copy."""

import os
import subprocess
import sys
import time

import pytest

_module_dir = os.environ.get("KELO_PYTHON_DIR")
if not _module_dir or not os.path.isdir(_module_dir):
    raise pytest.UsageError(
        f"KELO_PYTHON_DIR={_module_dir!r} must name the build's python/ directory, the one "
        "holding kelo.cpython-*.so (e.g. KELO_PYTHON_DIR=build/python)")
sys.path.insert(0, os.path.abspath(_module_dir))

import kelo  # noqa: E402


@pytest.fixture
def world():
    w = kelo.World()
    yield w
    w.close()


@pytest.fixture
def server():
    s = kelo.Server(0, "127.0.0.1", multicast=False)
    yield s
    s.close()


@pytest.fixture
def scratch(tmp_path):
    return tmp_path


@pytest.fixture
def run_python(tmp_path):
    """Runs code in a fresh /usr/bin/python3 with this sys.path, so that a crash fails one test
    instead of ending the run. Gives (returncode, stdout, stderr)."""

    def run(code):
        env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path), PYTHONFAULTHANDLER="1")
        done = subprocess.run(["/usr/bin/python3", "-c", code], capture_output=True, text=True,
                              timeout=60, cwd=tmp_path, env=env)
        return done.returncode, done.stdout, done.stderr

    return run


@pytest.fixture
def poll():
    """poll(condition, step): calls step() until condition() holds or 10 s have passed."""

    def wait(condition, step, timeout=10.0):
        deadline = time.monotonic() + timeout
        while not condition():
            if time.monotonic() > deadline:
                return False
            step()
        return True

    return wait
