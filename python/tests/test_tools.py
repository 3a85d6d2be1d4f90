"""python3 -m tarn, the plot, Dask against decode_log, and packaging."""

import json
import math
import os
import shutil
import subprocess
import sys

import pandas as pd
import pytest

import tarn
from conftest import DEMO_DBC, DEMO_LOG, PKG, ROOT, SHARED


def run_module(*args):
    return subprocess.run([sys.executable, "-m", "tarn", *args], capture_output=True,
                          text=True, timeout=120)


def test_decode_command_matches_the_tool_and_decode_log(db):
    text = run_module("decode", DEMO_DBC, DEMO_LOG)
    assert text.returncode == 0, text.stderr
    with open(os.path.join(ROOT, "tests", "scripts", "cli_expected", "demo_decode.txt")) as f:
        assert text.stdout == f.read()
    assert "10 messages (2 from transport transfers)" in text.stderr
    rows = [json.loads(line) for line in run_module("decode", "--json", DEMO_DBC,
                                                    DEMO_LOG).stdout.splitlines()]
    for name, df in db.decode_log(DEMO_LOG).items():
        mine = [r for r in rows if r["name"] == name]
        assert [r["t"] for r in mine] == pytest.approx(list(df.index))
        for r, (_, want) in zip(mine, df.iterrows()):
            got = {k: v["value"] for k, v in r["signals"].items()}
            assert got == pytest.approx({k: v for k, v in want.items() if not math.isnan(v)})
    cli = os.environ.get("TARN_CLI")
    if cli and os.access(cli, os.X_OK):
        theirs = subprocess.run([cli, "decode", "--json", DEMO_DBC, DEMO_LOG],
                                capture_output=True, text=True, timeout=60).stdout
        assert rows == [json.loads(line) for line in theirs.splitlines()]


def test_plot(db, tmp_path):
    out = tmp_path / "plot.png"
    res = run_module("plot", DEMO_DBC, DEMO_LOG, "EngineSpeed", "TorqueMode",
                     "Diagnostics.CoolantTemp", "RoadSurfaceTemp", "-o", str(out))
    assert res.returncode == 0 and res.stdout == "", res.stderr
    import matplotlib.image
    image = matplotlib.image.imread(str(out))
    assert image.shape[0] > 400 and image.shape[1] > 600 and image.std() > 0
    bad = run_module("plot", DEMO_DBC, DEMO_LOG, "NoSuchSignal", "-o", str(out))
    assert bad.returncode == 1 and "NoSuchSignal" in bad.stderr

    import tarn.plot
    fig = tarn.plot.plot(db, DEMO_LOG, ["EngineSpeed", "TorqueMode", "StarterMode"],
                         str(tmp_path / "labels.png"))
    labels = [[t.get_text() for t in ax.get_yticklabels()] for ax in fig.axes]
    assert len(labels) == 3  # rpm, and each value-table signal apart
    assert "Accelerator pedal" in labels[1] and "Start not requested" in labels[2]


def test_dask_matches_decode_log(tmp_path):
    distributed = pytest.importorskip("distributed")
    import dask
    import tarn.dask
    generator = os.path.join(SHARED, "tools", "gen_candump.py")
    if not os.path.exists(generator):
        pytest.skip("no log generator in ../shared/tools")
    paths = [DEMO_LOG]
    for seed in (1, 2, 3):
        paths.append(str(tmp_path / ("gen%d.log" % seed)))
        with open(paths[-1], "w") as out:
            subprocess.run([sys.executable, generator, DEMO_DBC, "500", "--seed", str(seed)],
                           stdout=out, check=True)
    try:
        cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                           dashboard_address=None, timeout=60)
    except Exception:  # noqa: BLE001 - no worker processes here: threads show the same
        cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1,
                                           processes=False, dashboard_address=None)
    with cluster, distributed.Client(cluster):
        lazy = tarn.dask.decode_logs(DEMO_DBC, paths)
        assert all(df.npartitions == len(paths) for df in lazy.values())
        (frames,) = dask.compute(lazy)
    db = tarn.load_file(DEMO_DBC)
    per_file = [db.decode_log(p) for p in paths]
    assert set(frames) == {m.name for m in db.messages}
    for name, got in frames.items():
        pd.testing.assert_frame_equal(got, pd.concat([f[name] for f in per_file if name in f]))


def load_path(pythonpath, env, cwd):
    """The library that `import tarn` loads with that path and environment."""
    found = subprocess.run([sys.executable, "-c", "import tarn; print(tarn.library_path)"],
                           env=dict(env, PYTHONPATH=pythonpath), capture_output=True,
                           text=True, cwd=str(cwd))
    assert found.returncode == 0, found.stderr
    return os.path.realpath(found.stdout.strip())


def test_packaging(tmp_path):
    """pip needs no network and leaves the tree as it was; a CMake install
    puts the package beside the library it then loads."""
    if not shutil.which("git") or not shutil.which("cmake"):
        pytest.skip("git or cmake missing")
    status = ["git", "status", "--porcelain", "--untracked-files=all"]
    before = subprocess.run(status, cwd=ROOT, capture_output=True, text=True).stdout
    pip = subprocess.run([sys.executable, "-m", "pip", "install", "--no-index", "--no-deps",
                          "--no-cache-dir", "--target", str(tmp_path / "site"), PKG],
                         capture_output=True, text=True, timeout=300)
    assert pip.returncode == 0, pip.stderr
    assert (tmp_path / "site" / "tarn" / "columns.py").exists()
    assert subprocess.run(status, cwd=ROOT, capture_output=True, text=True).stdout == before

    build = os.path.dirname(os.path.abspath(tarn.library_path))
    env = {k: v for k, v in os.environ.items() if k not in ("TARN_LIBRARY", "PYTHONPATH")}
    if build.startswith(os.path.join(ROOT, "build")):  # found in the repository's build tree
        assert ROOT in load_path(PKG, env, tmp_path)
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        pytest.skip("the library does not come from a build tree")
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", build, "--prefix", str(prefix)], check=True,
                   capture_output=True, timeout=300)
    (package,) = prefix.glob("lib/python3*/*-packages/tarn")
    assert load_path(str(package.parent), env, tmp_path).startswith(str(prefix))
