"""Batch inspection: fit every feature of every part listed in a manifest, into one table.

The manifest is a CSV file with a header and the columns

    part, feature, element, points, options

- ``element``: a fit of ``gfit.FITS`` (``plane``, ``cylinder``, ``probed_sphere``, ...;
  dashes as in the command-line program are accepted: ``probed-sphere``);
- ``points``: a file of points, one per line, values separated by spaces or commas, ``#``
  comments (the command-line program's format), relative to the manifest's folder; for
  probe-compensated elements a last column may give each ball's radius;
- ``options`` (may be empty): ``key=value`` pairs separated by ``;``: ``radius`` (probe ball
  radius, mm), ``inside`` (0/1), ``outer`` (0/1), ``normals`` and ``contacts`` (files like
  the points), ``guess``, ``centre``, ``axis`` (``x y z``), ``angle`` (degrees, default 10),
  ``tolerance`` and ``count`` for several cylinders or cones.

Each feature gives one result row: ``part``, ``feature``, ``element``, ``status`` (``ok`` or
``failed``), ``reason`` (why it failed: a missing file, a refused fit, ...), ``points`` (the
number of points) and the result's fields. A failing row never stops the batch. Rows come
back in manifest order, whatever ran where.

The work runs in a local process pool by default, and on a Dask cluster when given a
scheduler (an address such as ``tcp://host:8786``, or a ``distributed.Client`` /
``LocalCluster``): the same function per feature, reading its points where it runs, so only
file names and small results travel. Command line:

    python3 -m gfit.batch MANIFEST.csv [--csv OUT.csv] [--jsonl OUT.jsonl]
                          [--scheduler ADDRESS] [--workers N]
"""

from __future__ import annotations

import argparse
import csv
import json
import math
import os
import pathlib
import sys
from concurrent.futures import ProcessPoolExecutor

import numpy as np

import gfit

COLUMNS = ["part", "feature", "element", "points", "options"]


def read_manifest(path):
    """The manifest's rows as dicts (the columns above), each with the manifest's folder
    under ``base``. Raises ValueError for a missing column."""
    path = pathlib.Path(path)
    with open(path, newline="") as f:
        reader = csv.DictReader(f, skipinitialspace=True)
        missing = [c for c in COLUMNS[:4] if c not in (reader.fieldnames or [])]
        if missing:
            raise ValueError(f"manifest: missing column(s) {', '.join(missing)}")
        rows = []
        for row in reader:
            if not any((v or "").strip() for v in row.values()):
                continue
            item = {c: (row.get(c) or "").strip() for c in COLUMNS}
            item["base"] = str(path.parent.resolve())
            rows.append(item)
    return rows


def read_points(path):
    """Points from a text file: one per line, spaces or commas, '#' comments."""
    rows = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            values = line.split("#", 1)[0].replace(",", " ").split()
            if values:
                try:
                    rows.append([float(v) for v in values])
                except ValueError:
                    raise ValueError(f"{path}, line {number}: not a number") from None
    if not rows:
        raise ValueError(f"{path}: no points")
    if len({len(r) for r in rows}) != 1:
        raise ValueError(f"{path}: rows of different lengths")
    return np.array(rows, dtype=float)


def _options(text):
    out = {}
    for item in filter(None, (s.strip() for s in (text or "").split(";"))):
        key, sep, value = item.partition("=")
        if not sep:
            raise ValueError(f"options: '{item}' is not key=value")
        out[key.strip()] = value.strip()
    return out


def _vector(text, name):
    values = [float(v) for v in text.replace(",", " ").split()]
    if len(values) != 3:
        raise ValueError(f"options: {name} needs x y z")
    return values


def _flag(options, key):
    return options.pop(key, "0").lower() in ("1", "true", "yes")


PROFILES = ("min_circumscribed_circle", "max_inscribed_circle", "minmax_circle")
FITS = dict(gfit.FITS, cylinders=gfit.fit_cylinders, cones=gfit.fit_cones)


def _fit(element, pts, options, base):
    """The fit of one feature: the element's function with the manifest's options."""
    kwargs = {}
    probed = element.startswith("probed_")
    if probed or element in PROFILES:
        # Ball radii: radius=R for all, else the last column (required for probed elements,
        # optional for the profiles' extremal circles, whose points are x y).
        if "radius" in options:
            kwargs["radii"] = float(options.pop("radius"))
        elif probed or pts.shape[1] == 3:
            if pts.shape[1] < 3:
                raise ValueError("radii: give the probe radius as a last column or as radius=R")
            pts, kwargs["radii"] = pts[:, :-1], pts[:, -1]
        if element == "min_circumscribed_circle":
            kwargs["outer"] = _flag(options, "outer")
        elif element != "probed_plane":
            kwargs["inside"] = _flag(options, "inside")
    for key in ("normals", "contacts"):
        if key in options:
            kwargs[key] = read_points(base / options.pop(key))
    for key in ("guess", "centre", "axis"):
        if key in options:
            kwargs[key] = _vector(options.pop(key), key)
    if "angle" in options:
        kwargs["angle"] = math.radians(float(options.pop("angle")))
    if element in ("cylinders", "cones"):
        kwargs["tolerance"] = float(options.pop("tolerance", "0.01"))
        kwargs["count"] = int(options.pop("count", "2"))
    if options:
        raise ValueError(f"options: {', '.join(sorted(options))} not understood for {element}")
    return FITS[element](pts, **kwargs)


def fit_feature(row):
    """One manifest row to one result row (never raises: a failure is reported in the row)."""
    out = {"part": row.get("part", ""), "feature": row.get("feature", ""),
           "element": row.get("element", ""), "status": "failed", "reason": "", "points": 0}
    try:
        element = out["element"].replace("-", "_")
        if element not in FITS:
            raise ValueError(f"element: unknown '{out['element']}'")
        base = pathlib.Path(row.get("base", "."))
        pts = read_points(base / row["points"])
        out["points"] = len(pts)
        result = _fit(element, pts, _options(row.get("options", "")), base)
        if isinstance(result, list):  # several cylinders or cones
            out["results"] = [r.to_dict() for r in result]
        else:
            fields = result.to_dict()
            fields.pop("element", None)
            out.update(fields)
        out["status"] = "ok"
    except (ValueError, OSError, KeyError, TypeError) as e:
        out["reason"] = str(e)
    return out


def fit_features(rows):
    """fit_feature over a list of rows."""
    return [fit_feature(r) for r in rows]


def run(manifest, scheduler=None, workers=None, csv_path=None, jsonl_path=None):
    """Fits every feature of the manifest (a path, or rows from read_manifest) and returns
    the result rows in manifest order; writes them as CSV and/or JSON lines when given paths.

    ``scheduler``: None for a local process pool of ``workers`` processes (default: the CPU
    count; 0 runs serially in this process), or a Dask scheduler address, Client or
    LocalCluster."""
    rows = read_manifest(manifest) if isinstance(manifest, (str, os.PathLike)) else list(manifest)
    if scheduler is not None:
        results = _run_dask(rows, scheduler)
    elif workers == 0 or len(rows) <= 1:
        results = [fit_feature(r) for r in rows]
    else:
        with ProcessPoolExecutor(max_workers=workers) as pool:
            results = list(pool.map(fit_feature, rows, chunksize=max(1, len(rows) // (4 * (workers or os.cpu_count() or 1)))))
    if csv_path is not None:
        write_csv(results, csv_path)
    if jsonl_path is not None:
        write_jsonl(results, jsonl_path)
    return results


def _run_dask(rows, scheduler):
    try:
        from distributed import Client
    except ImportError as e:  # pragma: no cover - depends on the installation
        raise ImportError("a Dask scheduler needs the distributed package (Debian: python3-distributed)") from e
    if isinstance(scheduler, Client):
        client, own = scheduler, False
    else:
        client, own = Client(scheduler), True
    try:
        # Rows go in chunks, about four per worker thread, so that the scheduler's cost per
        # task (milliseconds) does not outweigh fits of small features; pure=False fits
        # every chunk once even when two are alike.
        threads = max(1, sum(client.nthreads().values()))
        size = max(1, math.ceil(len(rows) / (4 * threads)))
        chunks = [rows[i:i + size] for i in range(0, len(rows), size)]
        futures = client.map(fit_features, chunks, pure=False)
        return [row for chunk in client.gather(futures) for row in chunk]
    finally:
        if own:
            client.close()


def _flatten(row):
    flat = {}
    for key, value in row.items():
        if isinstance(value, list) and value and not isinstance(value[0], dict):
            for i, v in enumerate(value):
                flat[f"{key}_{'xyz'[i] if len(value) <= 3 else i}"] = v
        elif isinstance(value, list):
            flat[key] = json.dumps(value)
        else:
            flat[key] = value
    return flat


def write_csv(results, path):
    """One line per feature; vectors in columns name_x, name_y, name_z; the columns are the
    union over all rows (empty where a row has no such field)."""
    flat = [_flatten(r) for r in results]
    columns = ["part", "feature", "element", "status", "reason", "points"]
    for row in flat:
        columns += [k for k in row if k not in columns]
    with open(path, "w", newline="") as f:
        writer = csv.DictWriter(f, fieldnames=columns, restval="")
        writer.writeheader()
        for row in flat:
            writer.writerow({k: repr(v) if isinstance(v, float) else v for k, v in row.items()})


def write_jsonl(results, path):
    """One JSON object per line and feature (non-finite numbers as null)."""
    with open(path, "w") as f:
        for row in results:
            f.write(json.dumps(_finite(row)) + "\n")


def _finite(value):
    if isinstance(value, float) and not math.isfinite(value):
        return None
    if isinstance(value, dict):
        return {k: _finite(v) for k, v in value.items()}
    if isinstance(value, list):
        return [_finite(v) for v in value]
    return value


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m gfit.batch", description=__doc__.split("\n\n")[0])
    parser.add_argument("manifest")
    parser.add_argument("--csv", help="write the results table as CSV")
    parser.add_argument("--jsonl", help="write the results as JSON lines")
    parser.add_argument("--scheduler", help="Dask scheduler address (default: a local process pool)")
    parser.add_argument("--workers", type=int, help="local processes (default: the CPU count; 0: serial)")
    args = parser.parse_args(argv)
    try:
        results = run(args.manifest, scheduler=args.scheduler, workers=args.workers,
                      csv_path=args.csv, jsonl_path=args.jsonl)
    except (ValueError, OSError) as e:
        print(f"gfit.batch: {e}", file=sys.stderr)
        return 2
    failed = sum(r["status"] != "ok" for r in results)
    print(f"{len(results)} features, {failed} failed", file=sys.stderr)
    if not args.csv and not args.jsonl:
        for row in results:
            print(json.dumps(_finite(row)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
