"""`velmot train` on a 500,000 x 20 CSV file (and the same data as Parquet):
wall time and peak memory of the whole command beside the fit's own time.

    .venv/bin/python bench/cli_reading.py [--folder /tmp/velmot-cli-bench] [--baseline DIR]

--baseline names a folder holding another ``velmot`` package (for example
the previous command line beside this build's compiled modules); its CSV
run is measured in the same session, for a before/after ratio. Every run
uses all cores, 20 trees and seed 0; the machine's load average is printed
with the figures, since a shared machine moves them.
"""

import argparse
import os
import re
import subprocess
import sys
import time
from pathlib import Path

import numpy as np

N_ROWS, N_FEATURES, N_TREES = 500_000, 20, 20


def make_data(folder):
    csv_path, parquet_path = folder / "train.csv", folder / "train.parquet"
    if not csv_path.exists():
        import pyarrow as pa
        import pyarrow.csv as pacsv
        import pyarrow.parquet as pq
        from sklearn.datasets import make_classification

        X, y = make_classification(N_ROWS, N_FEATURES, n_informative=10, n_classes=3, random_state=0)
        columns = {f"x{j}": X[:, j].round(6) for j in range(N_FEATURES)}
        table = pa.table({**columns, "class": np.array(["a", "b", "c"])[y]})
        pacsv.write_csv(table, csv_path, pacsv.WriteOptions(quoting_style="none"))
        pq.write_table(table, parquet_path)
    return csv_path, parquet_path


def measured(command, pythonpath=None):
    """(wall seconds, peak RSS MiB, standard output) of a command under
    /usr/bin/time -v."""
    env = dict(os.environ)
    if pythonpath:
        env["PYTHONPATH"] = pythonpath
    result = subprocess.run(["/usr/bin/time", "-v", *command], capture_output=True, text=True, env=env, check=True)
    wall = re.search(r"Elapsed \(wall clock\) time.*: (?:(\d+):)?(\d+):([\d.]+)", result.stderr)
    hours, minutes, seconds = (float(part or 0) for part in wall.groups())
    peak = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", result.stderr).group(1))
    return hours * 3600 + minutes * 60 + seconds, peak / 1024, result.stdout


def fit_alone(parquet_path):
    """Prints the seconds of the fit alone on the data's float64 matrix, read
    from Parquet before the clock starts."""
    import pyarrow.parquet as pq

    import velmot

    table = pq.read_table(parquet_path)
    X = np.column_stack([table.column(j).to_numpy() for j in range(N_FEATURES)])
    y = table.column(N_FEATURES).to_numpy(zero_copy_only=False)
    del table
    start = time.perf_counter()
    velmot.RandomForestClassifier(N_TREES, n_jobs=-1, random_state=0).fit(X, y)
    print(time.perf_counter() - start, X.nbytes / 2**20)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--folder", type=Path, default=Path("/tmp/velmot-cli-bench"))
    parser.add_argument("--baseline", help="folder holding the velmot package to compare with")
    parser.add_argument("--fit-alone", type=Path, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.fit_alone:
        return fit_alone(args.fit_alone)
    args.folder.mkdir(parents=True, exist_ok=True)
    csv_path, parquet_path = make_data(args.folder)
    print(f"load average before: {os.getloadavg()[0]:.2f}; CSV {csv_path.stat().st_size / 2**20:.0f} MiB")
    wall, peak, out = measured([sys.executable, __file__, "--fit-alone", str(parquet_path)])
    fit, matrix = map(float, out.split())
    print(
        f"fit alone: {fit:.2f} s on a {matrix:.0f} MiB float64 matrix; "
        f"its process {wall:.2f} s, peak RSS {peak:.0f} MiB"
    )
    runs = [("CSV", csv_path, None), ("Parquet", parquet_path, None)]
    if args.baseline:
        runs.insert(0, ("CSV, baseline", csv_path, args.baseline))
    for name, data, pythonpath in runs:
        command = [sys.executable, "-m", "velmot", "train", str(data), "--trees", str(N_TREES), "--seed", "0"]
        wall, peak, _ = measured([*command, "--jobs", "-1", "--quiet", "-o", str(args.folder / "m.npz")], pythonpath)
        print(f"{name:14} wall {wall:6.2f} s (fit + {wall - fit:5.2f} s)  peak RSS {peak:6.0f} MiB")
    print(f"load average after: {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
