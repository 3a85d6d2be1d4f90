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
CORPUS = os.path.join(SHARED, "dbc")


def corpus_files():
    if not os.path.isdir(CORPUS):
        return [pytest.param(None, marks=pytest.mark.skip(reason="no DBC corpus in ../shared"))]
    return sorted(f for f in os.listdir(CORPUS) if f.endswith(".dbc"))


def generated_log(tmp_path, dbc, frames, seed, name=None):
    """A candump log from the shared generator."""
    import subprocess
    tool = os.path.join(SHARED, "tools", "gen_candump.py")
    if not os.path.exists(tool):
        pytest.skip("no log generator in ../shared/tools")
    path = tmp_path / (name or "gen%d.log" % seed)
    with open(path, "w") as out:
        subprocess.run([sys.executable, tool, dbc, str(frames), "--seed", str(seed)],
                       stdout=out, stderr=subprocess.DEVNULL, check=True)
    return str(path)


@pytest.fixture(scope="session")
def db():
    with tarn.load_file(DEMO_DBC) as database:
        yield database
