import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
PKG = os.path.join(ROOT, "python")
sys.path.insert(0, PKG)
# Worker processes (Dask) and child interpreters import the same package.
os.environ["PYTHONPATH"] = os.pathsep.join(filter(None, [PKG, os.environ.get("PYTHONPATH")]))

import tarn  # noqa: E402

DEMO_DBC = os.path.join(ROOT, "examples", "demo.dbc")
DEMO_LOG = os.path.join(ROOT, "examples", "demo.log")
SHARED = os.path.join(os.path.dirname(ROOT), "shared")


@pytest.fixture(scope="session")
def db():
    with tarn.load_file(DEMO_DBC) as database:
        yield database
