import os
import shutil
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "python"))

import tarn  # noqa: E402

DEMO_DBC = os.path.join(ROOT, "examples", "demo.dbc")
DEMO_LOG = os.path.join(ROOT, "examples", "demo.log")


def cli_path():
    """The tarn tool built beside the library the binding loaded."""
    env = os.environ.get("TARN_CLI")
    if env:
        return env
    candidate = os.path.join(os.path.dirname(tarn.library_path), "tools", "tarn")
    return candidate if os.access(candidate, os.X_OK) else shutil.which("tarn")


@pytest.fixture
def db():
    with tarn.Database(DEMO_DBC) as database:
        yield database
