"""Batch inspection from a manifest: the same rows serially, in a process pool and on a
two-worker Dask LocalCluster; failing rows report their reason and the batch goes on."""
import csv
import json

import numpy as np
import pytest

from gfit import batch
from conftest import DATA, frame

pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")  # tornado inside distributed


def write(path, points):
    np.savetxt(path, points, fmt="%.17g")
    return path.name


def make_manifest(tmp_path, features=12):
    rng = np.random.default_rng(11)
    rows = []
    for i in range(features):
        kind = ["plane", "cylinder", "circle", "probed-sphere"][i % 4]
        if kind == "plane":
            pts = np.column_stack([rng.uniform(-20, 20, (60, 2)), rng.normal(0, 1e-3, 60) + i])
        elif kind == "cylinder":
            e1, e2 = frame([0.1, 0.2, 1.0])
            t, h = rng.uniform(0, 2 * np.pi, 80), rng.uniform(0, 30, 80)
            pts = np.outer(h, np.cross(e1, e2)) + (5 + i) * (np.cos(t)[:, None] * e1 + np.sin(t)[:, None] * e2)
        elif kind == "circle":
            t = rng.uniform(0, 2 * np.pi, 40)
            pts = np.column_stack([3 + i + np.cos(t), 2 + np.sin(t)])
        else:
            d = rng.normal(size=(40, 3))
            d /= np.linalg.norm(d, axis=1)[:, None]
            pts = np.column_stack([d * (10 + 1.5), np.full(40, 1.5)])
        rows.append(["P%d" % (i // 4), f"F{i}", kind, write(tmp_path / f"f{i}.xyz", pts), ""])
    rows += [
        ["P9", "bore", "cylinder", "missing.xyz", ""],                       # no such file
        ["P9", "few", "sphere", write(tmp_path / "few.xyz", np.eye(3)), ""],  # too few points
        ["P9", "odd", "paraboloid", "f0.xyz", ""],                            # unknown element
        ["P9", "opt", "plane", "f0.xyz", "colour=red"],                       # unknown option
        ["P9", "ring", "probed-sphere", "f3.xyz", "inside=1"],
        ["P9", "roundness", "minmax-circle", str(DATA / "roundness.xy"), ""],
    ]
    manifest = tmp_path / "manifest.csv"
    with open(manifest, "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(batch.COLUMNS)
        w.writerows(rows)
    return manifest


@pytest.fixture(scope="module")
def manifest(tmp_path_factory):
    return make_manifest(tmp_path_factory.mktemp("batch"))


@pytest.fixture(scope="module")
def serial(manifest):
    return batch.run(manifest, workers=0)


def test_rows_report_their_outcome(serial):
    by_feature = {r["feature"]: r for r in serial}
    assert [r["feature"] for r in serial][:3] == ["F0", "F1", "F2"]  # manifest order
    assert all(r["status"] == "ok" for r in serial if r["feature"].startswith("F"))
    assert "missing.xyz" in by_feature["bore"]["reason"]
    assert "points: at least 4 rows" in by_feature["few"]["reason"]
    assert "element: unknown" in by_feature["odd"]["reason"]
    assert "colour" in by_feature["opt"]["reason"]
    assert by_feature["F1"]["radius"] == pytest.approx(6, abs=1e-9)
    assert by_feature["F3"]["radius"] == pytest.approx(10, abs=1e-9)      # the touched sphere
    assert by_feature["ring"]["radius"] == pytest.approx(13, abs=1e-9)    # touched from inside
    assert by_feature["roundness"]["width"] == pytest.approx(0.008, abs=1e-5)


def test_process_pool_matches_serial(manifest, serial):
    assert batch.run(manifest, workers=2) == serial


def test_local_cluster_matches_serial(manifest, serial, tmp_path):
    distributed = pytest.importorskip("distributed")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster:
        results = batch.run(manifest, scheduler=cluster.scheduler_address,
                            csv_path=tmp_path / "out.csv", jsonl_path=tmp_path / "out.jsonl")
    assert results == serial
    lines = (tmp_path / "out.jsonl").read_text().splitlines()
    assert [json.loads(line)["feature"] for line in lines] == [r["feature"] for r in serial]
    with open(tmp_path / "out.csv") as f:
        table = list(csv.DictReader(f))
    assert float(table[1]["radius"]) == serial[1]["radius"]  # written to the last digit
    assert table[1]["point_x"] and table[0]["normal_z"]
