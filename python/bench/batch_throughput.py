"""Throughput of gfit.batch: 200 features (planes, cylinders, circles, probed spheres, of a
few hundred points each) serially and on a two-worker Dask LocalCluster.

    PYTHONPATH=build/python /usr/bin/python3 python/bench/batch_throughput.py [features]
"""
import pathlib
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from distributed import LocalCluster  # noqa: E402

from gfit import batch  # noqa: E402
from test_batch import make_manifest  # noqa: E402



def main():
    features = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    with tempfile.TemporaryDirectory() as folder:
        manifest = make_manifest(pathlib.Path(folder), features)
        rows = batch.read_manifest(manifest)
        t0 = time.perf_counter()
        serial = batch.run(rows, workers=0)
        t_serial = time.perf_counter() - t0
        with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
            batch.run(rows[:4], scheduler=cluster.scheduler_address)  # workers warmed up (imports)
            t0 = time.perf_counter()
            cluster_rows = batch.run(rows, scheduler=cluster.scheduler_address)
            t_cluster = time.perf_counter() - t0
        assert cluster_rows == serial
        n = len(rows)
        print(f"{n} rows ({sum(r['status'] == 'ok' for r in serial)} fitted): serial {t_serial:.2f} s "
              f"({n / t_serial:.0f}/s), LocalCluster 2 workers {t_cluster:.2f} s ({n / t_cluster:.0f}/s), "
              f"results equal")


if __name__ == "__main__":  # the cluster's worker processes import this file again
    main()
