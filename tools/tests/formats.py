#!/usr/bin/env python3
"""formats.py GFIT POINTS

Writes the points of POINTS (x y z per line) in every format the command line reads — a CMM
export (a date line, then a POINT,X,Y,Z,I,J,K header), a plain CSV with a header, a file with
`;` separators and decimal commas, ASCII PLY, and binary PLY in both byte orders, with and
without normals — and checks that `GFIT fit cylinder` gives the same output, byte for byte, on
each as on the plain text file (normals from the file must give the same result as --normals).
"""
import os
import struct
import subprocess
import sys
import tempfile

gfit, source = sys.argv[1], sys.argv[2]
points = []
for line in open(source):
    line = line.split("#")[0].strip()
    if line:
        points.append([float(v) for v in line.replace(",", " ").split()[:3]])
# A normal per point: its direction from the cylinder's axis, as a scanner would give it; any
# unit vector serves, since the point is the same and only the normals' use is compared.
normals = []
for x, y, z in points:
    length = (x * x + y * y + z * z) ** 0.5 or 1.0
    normals.append([x / length, y / length, z / length])


def fmt(v):
    return repr(float(v))


def ply(path, binary, order, with_normals):
    props = ["x", "y", "z"] + (["nx", "ny", "nz"] if with_normals else [])
    kind = {"<": "binary_little_endian", ">": "binary_big_endian"}.get(order, "ascii")
    header = f"ply\nformat {kind} 1.0\ncomment written by formats.py\nelement vertex {len(points)}\n"
    header += "".join(f"property double {p}\n" for p in props) + "end_header\n"
    with open(path, "wb") as f:
        f.write(header.encode())
        for p, n in zip(points, normals):
            values = p + (n if with_normals else [])
            if binary:
                f.write(struct.pack(order + "d" * len(values), *values))
            else:
                f.write((" ".join(fmt(v) for v in values) + "\n").encode())


def run(*args):
    r = subprocess.run([gfit, "fit", "cylinder", *args], capture_output=True, text=True)
    if r.returncode != 0:
        print("gfit", *args, "failed:", r.stderr)
        sys.exit(1)
    return r.stdout


failures = 0
with tempfile.TemporaryDirectory() as d:
    text = os.path.join(d, "points.xyz")
    with open(text, "w") as f:
        f.writelines(" ".join(fmt(v) for v in p) + "\n" for p in points)
    normals_file = os.path.join(d, "normals.xyz")
    with open(normals_file, "w") as f:
        f.writelines(" ".join(fmt(v) for v in n) + "\n" for n in normals)
    plain = run(text)
    guided = run(text, "--normals", normals_file)
    if plain == guided:
        print("the normals do not change the fit: the test could not tell them apart")
        failures += 1

    files = {}
    files["cmm.csv"] = ("Tue Nov 17 10:02:11 2026\nPOINT,X,Y,Z,I,J,K\n" + "".join(
        f"P{i + 1}," + ",".join(fmt(v) for v in p + n) + "\n" for i, (p, n) in enumerate(zip(points, normals))), True)
    files["header.csv"] = ("x,y,z\n" + "".join(",".join(fmt(v) for v in p) + "\n" for p in points), False)
    files["comma.txt"] = ("X;Y;Z\n" + "".join(";".join(fmt(v).replace(".", ",") for v in p) + "\n" for p in points), False)
    for name, (body, has_normals) in files.items():
        path = os.path.join(d, name)
        with open(path, "w") as f:
            f.write(body)
    cases = [(name, has_normals) for name, (_, has_normals) in files.items()]
    for binary, order, tag in ((False, "", "ascii"), (True, "<", "le"), (True, ">", "be")):
        for with_normals in (False, True):
            name = f"{tag}{'-normals' if with_normals else ''}.ply"
            ply(os.path.join(d, name), binary, order, with_normals)
            cases.append((name, with_normals))
    for name, has_normals in cases:
        out = run(os.path.join(d, name))
        expected = guided if has_normals else plain
        if out != expected:
            print(f"{name}: differs from the plain text file\n  {out}  {expected}")
            failures += 1
        else:
            print(f"{name}: same result")
sys.exit(1 if failures else 0)
