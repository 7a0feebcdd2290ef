"""`velmot train` on a 500,000 x 20 CSV file (and the same data as Parquet):
wall time and peak memory of the whole command beside the fit's own time.

    .venv/bin/python bench/cli_reading.py [--folder /tmp/velmot-cli-bench] [--baseline DIR]

--baseline names a folder holding another ``velmot`` package (for example
the previous command line beside this build's compiled modules); its CSV
run is measured in the same session, for a before/after ratio, with its
own default --jobs and with all cores, and both train on the 150-row
example in turns, for the fixed cost alone. Every run on the large file
learns 20 trees under seed 0; the fit alone uses all cores, as the command
does by default. The machine's load average is printed with the figures,
since a shared machine moves them.
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
    """Prints the seconds of the fit alone, the matrix's and the forest's
    MiB, and the resident MiB before the data is read (the interpreter and
    the libraries the command line loads: not scikit-learn, imported after)."""
    from velmot import _cli_forest  # noqa: F401
    from velmot._tables import open_table

    columns = list(range(N_FEATURES))
    before = resident_mib()
    from velmot import RandomForestClassifier

    with open_table(str(parquet_path)) as table:
        table.take_header(columns)
        X, _, codes = table.training_data(columns, N_FEATURES)
    start = time.perf_counter()
    forest = RandomForestClassifier(N_TREES, n_jobs=-1, random_state=0).fit(X, codes)
    seconds = time.perf_counter() - start
    forest_bytes = sum(a.nbytes for a in forest.nodes_.as_dict().values())  # trees_ is made on reading
    print(seconds, X.nbytes / 2**20, forest_bytes / 2**20, before)


def reading_seconds(csv_path):
    """Seconds to read the training matrix and classes: the row reader, then
    pyarrow."""
    from velmot._tables import CsvTable

    columns, seconds = list(range(N_FEATURES)), []
    for read in (CsvTable._read_rows, CsvTable.training_data):
        with CsvTable(str(csv_path)) as table:
            table.take_header(columns)
            start = time.perf_counter()
            read(table, columns, N_FEATURES)
            seconds.append(time.perf_counter() - start)
    return seconds


def start_seconds(packages, model, rounds=5):
    """Median wall seconds of `velmot train` on the 150-row example (the
    interpreter's start, the imports, a small fit and model file) for each
    package folder (None: this build's), the packages taking turns."""
    iris = Path(__file__).resolve().parents[1] / "examples" / "iris.csv"
    command = [
        sys.executable,
        "-m",
        "velmot",
        "train",
        str(iris),
        "--trees",
        "10",
        "--seed",
        "0",
        "--quiet",
        "-o",
        model,
    ]
    times = {package: [] for package in packages}
    for _ in range(rounds):
        for package in packages:
            times[package].append(measured(command, package)[0])
    return [float(np.median(times[package])) for package in packages]


def resident_mib():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 2**20


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
    rows, arrow = reading_seconds(csv_path)
    print(f"reading the CSV file: row reader {rows:.2f} s, pyarrow {arrow:.2f} s ({rows / arrow:.1f} times as fast)")
    wall, peak, out = measured([sys.executable, __file__, "--fit-alone", str(parquet_path)])
    fit, matrix, forest, interpreter = map(float, out.split())
    print(
        f"fit alone: {fit:.2f} s; matrix {matrix:.0f} MiB, forest {forest:.0f} MiB, interpreter and libraries "
        f"{interpreter:.0f} MiB; target peak {interpreter + 2 * matrix + forest:.0f} MiB (2 x matrix + forest); "
        f"the fit's process (Parquet read, fit): peak RSS {peak:.0f} MiB"
    )
    if args.baseline:
        baseline, this = start_seconds([args.baseline, None], str(args.folder / "start.npz"))
        print(
            f"velmot train on the 150-row example (median of 5, in turns): baseline {baseline:.2f} s, this {this:.2f} s"
        )
    # (name, data, package folder, threads: None for the command's default)
    runs = [("CSV", csv_path, None, None), ("Parquet", parquet_path, None, None)]
    if args.baseline:
        runs[:0] = [("CSV, baseline", csv_path, args.baseline, None), ("CSV, baseline", csv_path, args.baseline, -1)]
    for name, data, pythonpath, jobs in runs:
        command = [sys.executable, "-m", "velmot", "train", str(data), "--trees", str(N_TREES), "--seed", "0"]
        command += [] if jobs is None else ["--jobs", str(jobs)]
        wall, peak, _ = measured([*command, "--quiet", "-o", str(args.folder / "m.npz")], pythonpath)
        threads = "default --jobs" if jobs is None else f"--jobs {jobs}"
        print(f"{name:14} {threads:15} wall {wall:6.2f} s (fit + {wall - fit:5.2f} s)  peak RSS {peak:6.0f} MiB")
    print(f"load average after: {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
