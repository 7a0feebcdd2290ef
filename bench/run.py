"""Velmot beside its peers: fit and predict on identical data, split, forest
size, features per split and thread count, each library in its own process.

    .venv/bin/python bench/run.py            # the full run (about 50 minutes on 2 idle cores)
    .venv/bin/python bench/run.py --quick    # smaller sizes, under 2 minutes

Run bench/setup.sh first (``make bench`` does): it installs the peers that are
missing. A peer that is not installed is reported as skipped.

Per library and workload it prints fit seconds, predict seconds, peak resident
memory during fit, holdout accuracy, and Velmot's speed-up over the library
(the library's seconds divided by Velmot's: above 1, Velmot is faster), then
writes results.md, results.json and benchmark.png under bench/results/
(bench/results/quick/ for --quick, bench/results/partial/ when only some
workloads or libraries are chosen).

Workloads (full size; --quick shrinks them):
  W0  small-data latency: 100 trees on iris and on breast cancer, n_jobs 1
      and 2, Velmot and scikit-learn alternating, one process per round;
      --busy-core runs it with another process spinning on one core
  W1  make_classification 100,000 x 40 float64, 20 informative, 3 classes;
      100 trees, 6 features per split; predict 50,000 held-out instances
  W2  W1's data quantised to uint8, 256 levels per feature
  W3  the handwritten digits, 500 trees, 8 features per split
  W4  W1's shape at 25k, 50k, 100k and 200k training instances (fit scaling);
      then Velmot's W4 fits again in 5 rounds of every size (--growth-rounds),
      whose medians give a growth exponent steadier than one fit per size
  W5  regression: make_friedman1 150,000 x 40, noise 1.0; 100,000 training
      and 50,000 predicted rows, 100 trees, 13 features per split, squared
      error; held-out R² and RMSE per library
  W6  feature-type parity: W2's values (256 levels, and 5 levels per
      feature) stored as uint8, int32, float32 and float64; Velmot only (the
      peers convert every type to floating point), fit seconds per type and
      each over the fastest type's
Every classification forest: Gini, full depth, bootstrap samples as large as the training
set (histogram peers: a 63.2% subsample), same seed, 2 threads.
"""

import argparse
import dataclasses
import datetime
import importlib.util
import json
import math
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np

BENCH_DIR = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(BENCH_DIR)
PEERS_DIR = os.path.join(BENCH_DIR, "peers")
SEED = 0


@dataclasses.dataclass(frozen=True)
class Library:
    key: str  # the module in bench/peers (ranger: the R script)
    label: str
    modules: tuple  # Python modules it needs; empty for ranger
    approximate: bool  # histogram splits: not the same trees as an exact learner
    install_hint: str


LIBRARIES = [
    Library("velmot_rf", "Velmot", ("velmot", "PyVelmot_wrap"), False, "scripts/setup.sh builds and installs it"),
    Library("sklearn_rf", "scikit-learn", ("sklearn",), False, "pip: scikit-learn"),
    Library("ranger", "ranger (R)", (), False, "apt: r-cran-ranger"),
    Library("ydf_rf", "ydf", ("ydf",), False, "pip: ydf"),
    Library("sklearnex_rf", "scikit-learn-intelex", ("sklearnex",), True, "pip: scikit-learn-intelex"),
    Library("xgboost_rf", "XGBoost rf", ("xgboost",), True, "pip: xgboost-cpu"),
    Library("lightgbm_rf", "LightGBM rf", ("lightgbm",), True, "pip: lightgbm"),
]
VELMOT = LIBRARIES[0]


@dataclasses.dataclass(frozen=True)
class Sizes:
    n_train: int
    n_test: int
    trees: int
    digits_trees: int
    scaling: tuple
    timeout: float  # seconds for one library on one case


FULL = Sizes(100_000, 50_000, 100, 500, (25_000, 50_000, 100_000, 200_000), 600)
QUICK = Sizes(4_000, 2_000, 10, 50, (2_000, 4_000, 8_000), 60)

WORKLOADS = ("W0", "W1", "W2", "W3", "W4", "W5", "W6")
# W6 compares Velmot with itself across feature types.
VELMOT_ONLY_WORKLOADS = ("W6",)
W6_LEVELS = (256, 5)
W6_TYPES = ("uint8", "int32", "float32", "float64")


@dataclasses.dataclass
class Case:
    workload: str
    title: str
    X_train: np.ndarray
    y_train: np.ndarray
    X_test: np.ndarray
    y_test: np.ndarray
    n_trees: int
    features_per_split: int
    variant: str = ""  # W6: the levels and the type of one case
    task: str = "classification"

    @property
    def key(self):
        # W4 at W1's size is W1 itself: the same data, so it is run once.
        return (
            self.X_train.dtype.str,
            self.X_train.shape,
            self.n_trees,
            self.workload in ("W3", "W5"),
            self.variant,
            self.task,
        )


# ---------------------------------------------------------------- W0

# One process per library, thread count and round: a warm-up fit per data
# set, then `repeats` timed fits; prints {data set: [seconds, ...]}.
SMALL_DATA_FITS = r"""
import json, sys, time
from sklearn.datasets import load_breast_cancer, load_iris
library, threads, repeats = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
if library == "Velmot":
    from velmot import RandomForestClassifier
else:
    from sklearn.ensemble import RandomForestClassifier
seconds = {}
for name, load in (("iris", load_iris), ("breast cancer", load_breast_cancer)):
    X, y = load(return_X_y=True)
    RandomForestClassifier(n_estimators=100, n_jobs=threads, random_state=0).fit(X, y)
    seconds[name] = []
    for _ in range(repeats):
        started = time.perf_counter()
        RandomForestClassifier(n_estimators=100, n_jobs=threads, random_state=0).fit(X, y)
        seconds[name].append(time.perf_counter() - started)
print(json.dumps(seconds))
"""


def small_data_latency(rounds, repeats, busy_core, omp_wait):
    """W0: fit seconds of 100 trees on two small data sets, per library and
    n_jobs, as (data set, library, n_jobs, median, 10th and 90th percentile)
    over rounds x repeats fits, the libraries alternating round by round."""
    spinner = subprocess.Popen([sys.executable, "-c", "while True: pass"]) if busy_core else None
    env = dict(os.environ, OMP_WAIT_POLICY="PASSIVE") if omp_wait == "passive" else None
    samples = {}
    try:
        for _ in range(rounds):
            for library in ("Velmot", "scikit-learn"):
                for threads in (1, 2):
                    result = subprocess.run(
                        [sys.executable, "-c", SMALL_DATA_FITS, library, str(threads), str(repeats)],
                        capture_output=True,
                        text=True,
                        check=True,
                        env=env,
                    )
                    for name, seconds in json.loads(result.stdout).items():
                        samples.setdefault((name, library, threads), []).extend(seconds)
    finally:
        if spinner is not None:
            spinner.kill()
            spinner.wait()
    return [
        (name, library, threads, *np.percentile(seconds, [50, 10, 90]))
        for (name, library, threads), seconds in sorted(samples.items())
    ]


def small_data_markdown(rows, busy_core):
    lines = [
        "## W0: small-data latency (100 trees" + (", another process spinning on one core)" if busy_core else ")"),
        "",
        "Fit milliseconds: median (10th-90th percentile) of every timed fit.",
        "",
        "| data set | n_jobs | Velmot | scikit-learn | Velmot speed-up |",
        "|---|---|---|---|---|",
    ]
    table = {(name, library, threads): (median, low, high) for name, library, threads, median, low, high in rows}
    for name, library, threads in sorted(table):
        if library != "Velmot":
            continue
        mine, peer = table[(name, "Velmot", threads)], table[(name, "scikit-learn", threads)]
        cells = [f"{1000 * m:.1f} ({1000 * lo:.1f}-{1000 * hi:.1f})" for m, lo, hi in (mine, peer)]
        lines.append(f"| {name} | {threads} | {' | '.join(cells)} | {peer[0] / mine[0]:.1f}x |")
    return lines + [""]


# ---------------------------------------------------------------- data


def synthetic_pool(sizes):
    """One make_classification draw: the held-out rows come last, and every
    training set is a prefix of the rest, so W1 is W4 at W1's size."""
    from sklearn.datasets import make_classification

    n_pool = max((sizes.n_train,) + sizes.scaling) + sizes.n_test
    X, y = make_classification(n_samples=n_pool, n_features=40, n_informative=20, n_classes=3, random_state=SEED)
    return X, y.astype(np.int64), sizes.n_test


def quantise_to_bytes(X_train, X_test, n_levels=256):
    """n_levels (at most 256) levels per feature at the training set's
    quantiles, so every level is used about equally often."""
    levels = np.linspace(0, 1, n_levels + 1)[1:-1]
    train = np.empty(X_train.shape, dtype=np.uint8)
    test = np.empty(X_test.shape, dtype=np.uint8)
    for j in range(X_train.shape[1]):
        edges = np.quantile(X_train[:, j], levels)
        train[:, j] = np.searchsorted(edges, X_train[:, j], side="right")
        test[:, j] = np.searchsorted(edges, X_test[:, j], side="right")
    return train, test


def build_cases(sizes, workloads):
    cases = []
    needs_pool = any(w in workloads for w in ("W1", "W2", "W4", "W6"))
    if needs_pool:
        X, y, n_test = synthetic_pool(sizes)
        X_test, y_test = X[-n_test:], y[-n_test:]
        shape = f"{sizes.n_train:,} x 40"
        common = {"X_test": X_test, "y_test": y_test, "n_trees": sizes.trees, "features_per_split": 6}
        if "W1" in workloads:
            cases.append(Case("W1", f"W1: synthetic {shape} float64", X[: sizes.n_train], y[: sizes.n_train], **common))
        if "W2" in workloads:
            train_bytes, test_bytes = quantise_to_bytes(X[: sizes.n_train], X_test)
            common_bytes = {**common, "X_test": test_bytes}
            cases.append(
                Case("W2", f"W2: synthetic {shape} quantised to uint8", train_bytes, y[: sizes.n_train], **common_bytes)
            )
        if "W4" in workloads:
            for n in sizes.scaling:
                cases.append(Case("W4", f"W4: synthetic {n:,} x 40 float64", X[:n], y[:n], **common))
        if "W6" in workloads:
            for n_levels in W6_LEVELS:
                train_levels, test_levels = quantise_to_bytes(X[: sizes.n_train], X_test, n_levels)
                for dtype in W6_TYPES:
                    variant = f"{n_levels} levels, {dtype}"
                    cases.append(
                        Case(
                            "W6",
                            f"W6: synthetic {shape}, {variant}",
                            train_levels.astype(dtype),
                            y[: sizes.n_train],
                            **{**common, "X_test": test_levels.astype(dtype)},
                            variant=variant,
                        )
                    )
    if "W5" in workloads:
        from sklearn.datasets import make_friedman1

        n = sizes.n_train
        X, y = make_friedman1(n_samples=n + sizes.n_test, n_features=40, noise=1.0, random_state=SEED)
        title = f"W5: regression, Friedman #1 {n:,} x 40 float64"
        cases.append(Case("W5", title, X[:n], y[:n], X[n:], y[n:], sizes.trees, 13, task="regression"))
    if "W3" in workloads:
        from sklearn.datasets import load_digits
        from sklearn.model_selection import train_test_split

        X, y = load_digits(return_X_y=True)
        X_train, X_test, y_train, y_test = train_test_split(
            X, y.astype(np.int64), test_size=0.25, stratify=y, random_state=SEED
        )
        cases.append(
            Case(
                "W3",
                f"W3: digits {len(X_train):,} x 64 float64, 10 classes",
                X_train,
                y_train,
                X_test,
                y_test,
                sizes.digits_trees,
                8,
            )
        )
    return cases


def write_case(case, directory, threads, for_r):
    config = {
        "n_trees": case.n_trees,
        "features_per_split": case.features_per_split,
        "n_threads": threads,
        "seed": SEED,
        "task": case.task,
        "n_classes": len(np.unique(case.y_train)) if case.task == "classification" else 0,
        "n_features": case.X_train.shape[1],
        "n_train": case.X_train.shape[0],
        "n_test": case.X_test.shape[0],
    }
    np.save(os.path.join(directory, "X_train.npy"), case.X_train)
    np.save(os.path.join(directory, "y_train.npy"), case.y_train)
    np.save(os.path.join(directory, "X_test.npy"), case.X_test)
    with open(os.path.join(directory, "config.json"), "w") as f:
        json.dump(config, f)
    if for_r:
        # Column-major float64 and int32, as R's readBin fills a matrix.
        np.ascontiguousarray(case.X_train.T, dtype="<f8").tofile(os.path.join(directory, "X_train.f64"))
        np.ascontiguousarray(case.X_test.T, dtype="<f8").tofile(os.path.join(directory, "X_test.f64"))
        if case.task == "regression":
            case.y_train.astype("<f8").tofile(os.path.join(directory, "y_train.f64"))
        else:
            case.y_train.astype("<i4").tofile(os.path.join(directory, "y_train.i32"))
        with open(os.path.join(directory, "config.txt"), "w") as f:
            f.writelines(f"{key} {value}\n" for key, value in config.items())


# ---------------------------------------------------------------- running


def why_unavailable(library):
    """None if the library can run here, else the reason it is skipped."""
    if library.key == "ranger":
        if shutil.which("Rscript") is None:
            return f"Rscript not found ({library.install_hint})"
        check = subprocess.run(
            ["Rscript", "-e", 'quit(status = !requireNamespace("ranger", quietly = TRUE))'],
            check=False,
            capture_output=True,
        )
        return None if check.returncode == 0 else f"R package ranger not installed ({library.install_hint})"
    missing = [m for m in library.modules if importlib.util.find_spec(m) is None]
    return f"not installed: {', '.join(missing)} ({library.install_hint})" if missing else None


def run_library(library, case_dir, threads, timeout, omp_wait):
    """Runs one library on the case in a fresh process; returns its figures
    and predictions, or an error."""
    result_path = os.path.join(case_dir, f"result_{library.key}.json")
    if library.key == "ranger":
        command = ["Rscript", os.path.join(PEERS_DIR, "ranger.R"), case_dir, result_path]
        predictions_path = os.path.join(case_dir, "pred_ranger.bin")
    else:
        command = [sys.executable, os.path.join(PEERS_DIR, "harness.py"), library.key, case_dir, result_path]
        predictions_path = os.path.join(case_dir, f"pred_{library.key}.npy")
    env = dict(os.environ, OMP_NUM_THREADS=str(threads), PYTHONWARNINGS="ignore")
    if omp_wait == "passive":
        env["OMP_WAIT_POLICY"] = "PASSIVE"
    try:
        process = subprocess.run(
            command, check=False, capture_output=True, text=True, timeout=timeout, env=env, cwd=ROOT
        )
    except subprocess.TimeoutExpired:
        return {"status": "timed out", "error": f"no result within {timeout:.0f} s"}
    if process.returncode != 0 or not os.path.exists(result_path):
        lines = [line for line in (process.stderr or process.stdout).strip().splitlines() if line.strip()]
        return {"status": "failed", "error": lines[-1] if lines else f"exit status {process.returncode}"}
    with open(result_path) as f:
        result = json.load(f)
    if predictions_path.endswith(".npy"):
        predictions = np.load(predictions_path)
    else:  # ranger writes float64 targets or int32 classes
        predictions = np.fromfile(predictions_path, dtype="<f8" if result.get("task") == "regression" else "<i4")
    result["status"] = "ok"
    return result, predictions


def run_cases(cases, libraries, threads, timeout, omp_wait, on_progress):
    """Runs every library on every case, smallest cases first; a library that
    timed out on a synthetic case is not run on synthetic cases as large or
    larger. Calls on_progress(rows) after each case."""
    rows = []
    done = {}
    timed_out_at = {}  # library label -> smallest synthetic size that timed out
    for case in sorted(cases, key=lambda c: (c.workload != "W3", len(c.X_train))):
        if case.key in done:
            rows.extend(dict(row, workload=case.workload) for row in done[case.key])
            on_progress(rows)
            continue
        print(
            f"\n{case.title}: {case.n_trees} trees, {case.features_per_split} features per split, "
            f"{threads} threads, predict {len(case.X_test):,}",
            flush=True,
        )
        n_train = len(case.X_train)
        synthetic = case.workload != "W3"
        case_rows = []
        with tempfile.TemporaryDirectory(prefix="velmot-bench-") as case_dir:
            case_libraries = [VELMOT] if case.workload in VELMOT_ONLY_WORKLOADS else libraries
            case_libraries = [lib for lib in case_libraries if lib in libraries]
            write_case(case, case_dir, threads, for_r=any(lib.key == "ranger" for lib in case_libraries))
            for library in case_libraries:
                row = {"workload": case.workload, "variant": case.variant, "n_train": n_train, "library": library.label}
                if synthetic and timed_out_at.get(library.label, math.inf) <= n_train:
                    outcome = {
                        "status": "skipped",
                        "error": f"timed out at {timed_out_at[library.label]:,} instances, so not run on as many",
                    }
                else:
                    outcome = run_library(library, case_dir, threads, timeout, omp_wait)
                if isinstance(outcome, tuple):
                    result, predictions = outcome
                    if case.task == "regression":
                        error = predictions - case.y_test
                        r2 = 1 - float(np.sum(error**2) / np.sum((case.y_test - case.y_test.mean()) ** 2))
                        row.update(result, r2=r2, rmse=float(np.sqrt(np.mean(error**2))))
                        quality = f"R² {row['r2']:.4f}   RMSE {row['rmse']:.4f}"
                    else:
                        row.update(result, accuracy=float(np.mean(predictions == case.y_test)))
                        quality = f"accuracy {row['accuracy']:.4f}"
                    print(
                        f"  {library.label:<22} fit {row['fit_seconds']:8.2f} s"
                        f"   predict {row['predict_seconds']:7.3f} s"
                        f"   fit peak {row['fit_peak_rss_mib']:7.0f} MiB   {quality}",
                        flush=True,
                    )
                else:
                    row.update(outcome)
                    print(f"  {library.label:<22} {row['status']}: {row['error']}", flush=True)
                    if synthetic and row["status"] == "timed out":
                        timed_out_at[library.label] = min(n_train, timed_out_at.get(library.label, math.inf))
                case_rows.append(row)
        done[case.key] = case_rows
        rows.extend(case_rows)
        on_progress(rows)
    return rows


def steadied_growth(cases, threads, timeout, omp_wait, rounds):
    """Velmot's W4 fits again, in rounds that each run every size once
    (smallest first), so that a change in the machine's load falls on all
    sizes alike; returns the fit seconds per size over the rounds. One fit per
    size moves the growth exponent by a few hundredths on a shared machine."""
    scaling = sorted((c for c in cases if c.workload == "W4"), key=lambda c: len(c.X_train))
    fits = {len(c.X_train): [] for c in scaling}
    print(f"\nVelmot's W4 growth: {rounds} rounds of {', '.join(f'{n:,}' for n in fits)}", flush=True)
    with tempfile.TemporaryDirectory(prefix="velmot-growth-") as root:
        directories = []
        for case in scaling:
            directory = os.path.join(root, str(len(case.X_train)))
            os.makedirs(directory)
            write_case(case, directory, threads, for_r=False)
            directories.append((len(case.X_train), directory))
        for round_number in range(rounds):
            seconds = []
            for n, directory in directories:
                outcome = run_library(VELMOT, directory, threads, timeout, omp_wait)
                if not isinstance(outcome, tuple):
                    print(f"  round {round_number + 1}: {n:,} {outcome['status']}: {outcome['error']}", flush=True)
                    return None
                fits[n].append(outcome[0]["fit_seconds"])
                seconds.append(f"{fits[n][-1]:.2f}")
            print(f"  round {round_number + 1}: fit " + " / ".join(seconds) + " s", flush=True)
    return fits


def growth_exponent(sizes, seconds):
    """b of the least-squares fit seconds ~ n^b."""
    return float(np.polyfit(np.log(sizes), np.log(seconds), 1)[0])


def work_growth_lines(scaling, libraries):
    """The work an exact learner's trees demand, beside its fit time: every
    instance is read once per split on its way down a tree, once per feature
    tried, so a fit's reads grow as n times the mean path length. Where trees
    grown to pure leaves deepen by more than a level per doubling of n, as on
    W4's data, that work grows faster than n log n over the range, whatever
    the learner."""
    lines = []
    for library in libraries:
        points = sorted(
            (r["n_train"], r["mean_path_length"], r["fit_seconds"])
            for r in scaling
            if r["library"] == library.label and r["status"] == "ok" and "mean_path_length" in r
        )
        if len(points) < 2:
            continue
        sizes = [n for n, _, _ in points]
        work = [n * depth for n, depth, _ in points]
        per_work = [seconds / w for (_, _, seconds), w in zip(points, work)]
        n_log_n = growth_exponent(sizes, [n * math.log(n) for n in sizes])
        lines += [
            (
                f"{library.label}'s trees: mean splits on a training instance's path (first 10 trees) "
                + ", ".join(f"{depth:.2f} at {n:,}" for n, depth, _ in points)
                + f"; so its reads grow as n x path length: **n^{growth_exponent(sizes, work):.3f}**, against "
                f"n^{n_log_n:.3f} for n log n. Fit seconds per unit of that work, relative to the smallest size: "
                + ", ".join(f"{p / per_work[0]:.2f}" for p in per_work)
                + "."
            ),
            "",
        ]
    return lines


# ---------------------------------------------------------------- reporting


def machine_description():
    def command_output(*command):
        try:
            return subprocess.run(command, check=False, capture_output=True, text=True, timeout=10).stdout
        except (OSError, subprocess.SubprocessError):
            return ""

    cpu = {}
    for line in command_output("lscpu").splitlines():
        key, _, value = line.partition(":")
        cpu[key.strip()] = value.strip()
    memory = next(
        (line.split()[1] for line in command_output("free", "-h").splitlines() if line.startswith("Mem:")), "?"
    )
    return {
        "cpu": cpu.get("Model name", platform.processor() or "?"),
        "cpus": cpu.get("CPU(s)", str(os.cpu_count())),
        "threads_per_core": cpu.get("Thread(s) per core", "?"),
        "memory": memory,
        "os": platform.platform(),
        "python": platform.python_version(),
    }


def repository_commit():
    try:
        commit = subprocess.run(
            ["git", "-C", ROOT, "rev-parse", "--short", "HEAD"], check=False, capture_output=True, text=True
        )
        return commit.stdout.strip() or "?"
    except OSError:
        return "?"


def speedup(rows, row, field):
    """The row's seconds over Velmot's on the same case."""
    velmot = next(
        (
            r
            for r in rows
            if r["library"] == VELMOT.label
            and r["workload"] == row["workload"]
            and r.get("variant", "") == row.get("variant", "")
            and r["n_train"] == row["n_train"]
            and r["status"] == "ok"
        ),
        None,
    )
    if velmot is None or row["status"] != "ok" or velmot[field] <= 0:
        return None
    return row[field] / velmot[field]


def fmt_seconds(seconds):
    return f"{seconds:.3f}" if seconds < 1 else f"{seconds:.2f}" if seconds < 100 else f"{seconds:.0f}"


def fmt_ratio(ratio):
    return "n/a" if ratio is None else f"{ratio:.2f}x"


def label_of(row, libraries):
    library = next(lib for lib in libraries if lib.label == row["library"])
    return f"{row['library']} (approx.)" if library.approximate else row["library"]


def type_parity_lines(rows, cases):
    """W6: Velmot's fit seconds per feature type on the same values, and each
    over the fastest type's at the same levels."""
    rows = [r for r in rows if r["workload"] == "W6" and r["library"] == VELMOT.label and r["status"] == "ok"]
    if not rows:
        return []
    case = next(c for c in cases if c.workload == "W6")
    lines = [
        f"## W6: feature-type parity (synthetic {len(case.X_train):,} x {case.X_train.shape[1]}, Velmot)",
        "",
        f"{case.n_trees} trees, {case.features_per_split} features per split; W2's quantised values stored in "
        "each type. Each cell: fit seconds (over the fastest type's at the same levels), wall clock and "
        "CPU of all threads; on a shared machine the CPU figures are the steadier.",
        "",
        "| levels | seconds | " + " | ".join(W6_TYPES) + " |",
        "| --- | --- | " + " | ".join("---:" for _ in W6_TYPES) + " |",
    ]
    for n_levels in W6_LEVELS:
        for field, name in (("fit_seconds", "wall"), ("fit_cpu_seconds", "CPU")):
            seconds = {
                t: next((r.get(field) for r in rows if r["variant"] == f"{n_levels} levels, {t}"), None)
                for t in W6_TYPES
            }
            fastest = min((s for s in seconds.values() if s is not None), default=None)
            cells = ["" if s is None else f"{fmt_seconds(s)} ({s / fastest:.2f}x)" for s in seconds.values()]
            lines.append(f"| {n_levels} | {name} | " + " | ".join(cells) + " |")
    return lines + [""]


def markdown_report(run, libraries, cases):
    rows = run["rows"]
    machine = run["machine"]
    lines = [
        f"# Benchmark results ({run['mode']} run"
        f"{'' if run['complete'] else ', incomplete: still running or interrupted'})",
        "",
        f"Measured {run['date']} at commit {run['commit']} with `{run['command']}`, "
        f"{run['threads']} threads for every library"
        + (" (OpenMP threads wait passively: OMP_WAIT_POLICY=PASSIVE)." if run["omp_wait"] == "passive" else "."),
        (
            f"Machine: {machine['cpu']}, {machine['cpus']} CPUs ({machine['threads_per_core']} thread(s) per core), "
            f"{machine['memory']} memory, {machine['os']}, Python {machine['python']}."
        ),
        (
            f"The machine is shared with other work (load average {run['load_average'][0]:.1f} at the start, "
            f"{run['load_average'][1]:.1f} at the end), so single figures carry noise of some tens of per cent."
        ),
        "",
        (
            "- *fit*, *predict*: wall-clock seconds, measured inside each library's own process "
            "(imports, data loading and process start excluded); predict covers the whole held-out set."
        ),
        (
            "- *fit peak RSS*: the process's peak resident memory during fit, training data and the library "
            "itself included."
        ),
        "- *Velmot speed-up*: the library's seconds divided by Velmot's on the same case; above 1, Velmot is faster.",
        (
            "- *approx.*: histogram methods (at most 256 bins per feature), and for LightGBM and XGBoost a 63.2% "
            "subsample in place of a bootstrap and one tree per class: not the same forests, so their figures are "
            "indicative only."
        ),
        "",
    ]
    if "small_data_latency" in run:
        lines += small_data_markdown(run["small_data_latency"], run.get("busy_core", False))
    for workload in ("W1", "W2", "W3", "W5"):
        case_rows = [r for r in rows if r["workload"] == workload]
        if not case_rows:
            continue
        case = next(c for c in cases if c.workload == workload)
        quality = "R² | RMSE" if case.task == "regression" else "accuracy"
        lines += [
            f"## {case.title}",
            "",
            (
                f"{case.n_trees} trees, {case.features_per_split} features per split; "
                f"{len(case.X_test):,} held-out instances predicted."
            ),
            "",
            f"| library | fit (s) | predict (s) | fit peak RSS (MiB) | {quality} "
            "| Velmot fit speed-up | Velmot predict speed-up |",
            "| --- | ---: | ---: | ---: | ---: | ---: | ---: |" + (" ---: |" if case.task == "regression" else ""),
        ]
        for row in case_rows:
            name = label_of(row, libraries)
            if row["status"] != "ok":
                lines.append(f"| {name} | {row['status']} | | | | | |")
                continue
            scores = f"{row['r2']:.4f} | {row['rmse']:.4f}" if case.task == "regression" else f"{row['accuracy']:.4f}"
            lines.append(
                f"| {name} | {fmt_seconds(row['fit_seconds'])} | {fmt_seconds(row['predict_seconds'])} | "
                f"{row['fit_peak_rss_mib']:.0f} | {scores} | "
                f"{fmt_ratio(speedup(rows, row, 'fit_seconds'))} | {fmt_ratio(speedup(rows, row, 'predict_seconds'))} |"
            )
        lines.append("")
    scaling = [r for r in rows if r["workload"] == "W4"]
    if scaling:
        sizes = sorted({r["n_train"] for r in scaling})
        lines += [
            "## W4: fit time as the training set grows (synthetic, 40 features, float64)",
            "",
            (
                f"{next(c for c in cases if c.workload == 'W4').n_trees} trees, 6 features per split. "
                "Each cell: fit seconds (Velmot speed-up). *growth*: the exponent b of a least-squares fit "
                "seconds ~ n^b (1 is linear)."
            ),
            "",
            "| library | " + " | ".join(f"{n:,}" for n in sizes) + " | growth |",
            "| --- | " + " | ".join("---:" for _ in sizes) + " | ---: |",
        ]
        for library in libraries:
            cells, points = [], []
            for n in sizes:
                row = next((r for r in scaling if r["library"] == library.label and r["n_train"] == n), None)
                if row is None or row["status"] != "ok":
                    cells.append(row["status"] if row else "")
                    continue
                points.append((n, row["fit_seconds"]))
                cells.append(f"{fmt_seconds(row['fit_seconds'])} ({fmt_ratio(speedup(rows, row, 'fit_seconds'))})")
            growth = ""
            if len(points) >= 2:
                growth = f"{growth_exponent([p[0] for p in points], [p[1] for p in points]):.2f}"
            name = f"{library.label} (approx.)" if library.approximate else library.label
            lines.append(f"| {name} | " + " | ".join(cells) + f" | {growth} |")
        lines.append("")
        lines += work_growth_lines(scaling, libraries)
        fits = run.get("velmot_growth")
        if fits:
            grown = sorted((int(n), float(np.median(seconds))) for n, seconds in fits.items())
            n_values = [n for n, _ in grown]
            n_log_n = growth_exponent(n_values, [n * math.log(n) for n in n_values])
            lines += [
                (
                    f"Velmot's growth, steadied: its fits again in {len(next(iter(fits.values())))} rounds that each "
                    "run every size once, smallest first (a change in the machine's load then falls on all sizes "
                    "alike). Median fit seconds: "
                    + ", ".join(f"{fmt_seconds(t)} at {n:,}" for n, t in grown)
                    + f"; growth **n^{growth_exponent(n_values, [t for _, t in grown]):.3f}**, against "
                    f"n^{n_log_n:.3f} for n log n over the same sizes."
                ),
                "",
            ]
    lines += type_parity_lines(rows, cases)
    lines += ["## Libraries", ""]
    for library in libraries:
        row = next((r for r in rows if r["library"] == library.label and r["status"] == "ok"), None)
        if row is not None:
            lines.append(f"- {library.label} {row.get('version', '?')}: {row.get('method', '')}")
    for library, reason in run["skipped"]:
        lines.append(f"- {library}: **skipped**, {reason}")
    for row in rows:
        if row["status"] not in ("ok",):
            lines.append(
                f"- {row['library']} on {row['workload']} ({row['n_train']:,}): **{row['status']}**: {row['error']}"
            )
    lines.append("")
    lines.append("![fit and predict seconds, memory and scaling](benchmark.png)")
    lines.append("")
    return "\n".join(lines)


def draw_chart(run, libraries, path):
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    rows = [r for r in run["rows"] if r["status"] == "ok"]
    colours = dict(zip([lib.label for lib in libraries], plt.get_cmap("tab10").colors))
    hatch = {lib.label: "//" if lib.approximate else "" for lib in libraries}
    present = [lib.label for lib in libraries if any(r["library"] == lib.label for r in rows)]
    workloads = [w for w in ("W1", "W2", "W3") if any(r["workload"] == w for r in rows)]

    figure, axes = plt.subplots(2, 2, figsize=(13, 9))
    panels = [
        (axes[0][0], "fit_seconds", "fit (s, log scale)", True),
        (axes[0][1], "predict_seconds", "predict (s, log scale)", True),
        (axes[1][0], "fit_peak_rss_mib", "peak RSS during fit (MiB)", False),
    ]
    width = 0.8 / max(len(present), 1)
    for axis, field, title, log in panels:
        for k, label in enumerate(present):
            xs, ys = [], []
            for i, workload in enumerate(workloads):
                row = next((r for r in rows if r["library"] == label and r["workload"] == workload), None)
                if row is not None:
                    xs.append(i + (k - (len(present) - 1) / 2) * width)
                    ys.append(row[field])
            axis.bar(xs, ys, width, label=label, color=colours[label], hatch=hatch[label], edgecolor="white")
        axis.set_xticks(range(len(workloads)), workloads)
        axis.set_title(title)
        if log:
            axis.set_yscale("log")
        axis.grid(axis="y", alpha=0.3)
    if present:
        axes[0][0].legend(fontsize=8)

    axis = axes[1][1]
    scaling = [r for r in rows if r["workload"] == "W4"]
    for label in present:
        points = sorted((r["n_train"], r["fit_seconds"]) for r in scaling if r["library"] == label)
        if points:
            axis.plot(
                *zip(*points), marker="o", label=label, color=colours[label], linestyle="--" if hatch[label] else "-"
            )
    axis.set_xscale("log")
    axis.set_yscale("log")
    sizes = sorted({r["n_train"] for r in scaling})
    axis.set_xticks(sizes, [f"{n:,}" for n in sizes])
    axis.minorticks_off()
    axis.set_xlabel("training instances")
    axis.set_title("W4: fit (s) against training set size")
    axis.grid(alpha=0.3)
    figure.suptitle(
        f"Velmot and peers ({run['mode']} run, {run['threads']} threads; hatched or dashed: histogram methods)"
    )
    figure.tight_layout()
    figure.savefig(path, dpi=100)
    plt.close(figure)


# ---------------------------------------------------------------- main


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="smaller sizes and forests: under 2 minutes")
    parser.add_argument(
        "--workloads", default=",".join(WORKLOADS), help="comma-separated subset of " + ",".join(WORKLOADS)
    )
    parser.add_argument(
        "--busy-core", action="store_true", help="W0 with another process spinning on one core all along"
    )
    parser.add_argument(
        "--libraries",
        default=",".join(lib.key.removesuffix("_rf") for lib in LIBRARIES),
        help="comma-separated subset of " + ",".join(lib.key.removesuffix("_rf") for lib in LIBRARIES),
    )
    parser.add_argument("--threads", type=int, default=2, help="threads for every library (default 2)")
    parser.add_argument(
        "--timeout",
        type=float,
        help="seconds allowed for one library on one case, its process start included (default: 600, --quick 60)",
    )
    parser.add_argument(
        "--omp-wait",
        choices=("passive", "default"),
        default="passive",
        help="OpenMP waiting of idle threads: passive (default; on a shared machine, spinning "
        "threads slow fine-grained parallel loops tenfold) or the runtime's default",
    )
    parser.add_argument(
        "--growth-rounds",
        type=int,
        help="rounds of Velmot's W4 fits run again, interleaved, for a steadier growth exponent "
        "(default: 5, --quick 2; 0: none)",
    )
    parser.add_argument(
        "--out", help="output folder (default bench/results, bench/results/quick or bench/results/partial)"
    )
    arguments = parser.parse_args(argv)
    arguments.workloads = [w.strip().upper() for w in arguments.workloads.split(",") if w.strip()]
    unknown = set(arguments.workloads) - set(WORKLOADS)
    if unknown:
        parser.error(f"unknown workloads: {', '.join(sorted(unknown))}")
    chosen = [k.strip() for k in arguments.libraries.split(",") if k.strip()]
    known = {lib.key.removesuffix("_rf"): lib for lib in LIBRARIES}
    unknown = set(chosen) - set(known)
    if unknown:
        parser.error(f"unknown libraries: {', '.join(sorted(unknown))}")
    arguments.libraries = [lib for lib in LIBRARIES if lib.key.removesuffix("_rf") in chosen]
    partial = len(arguments.workloads) < len(WORKLOADS) or len(arguments.libraries) < len(LIBRARIES)
    if arguments.out is None:
        arguments.out = os.path.join(
            BENCH_DIR, "results", *(["partial"] if partial else ["quick"] if arguments.quick else [])
        )
    return arguments


def main(argv):
    arguments = parse_arguments(argv)
    sizes = QUICK if arguments.quick else FULL
    timeout = arguments.timeout or sizes.timeout
    started = time.perf_counter()

    skipped, libraries = [], []
    for library in arguments.libraries:
        reason = why_unavailable(library)
        if reason:
            skipped.append((library.label, reason))
            print(f"skipping {library.label}: {reason}", flush=True)
        else:
            libraries.append(library)

    cases = build_cases(sizes, arguments.workloads)
    load_before = os.getloadavg()[0]
    run = {
        "mode": "quick" if arguments.quick else "full",
        "complete": False,
        "date": datetime.datetime.now(datetime.UTC).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": repository_commit(),
        "command": "make bench" + (" ARGS=--quick" if arguments.quick else "")
        if not argv or argv == ["--quick"]
        else "bench/run.py " + " ".join(argv),
        "threads": arguments.threads,
        "omp_wait": arguments.omp_wait,
        "load_average": [load_before, load_before],
        "machine": machine_description(),
        "skipped": skipped,
        "rows": [],
    }
    os.makedirs(arguments.out, exist_ok=True)

    def write_outputs(rows):
        # Rewritten after every case, so that an interrupted run keeps what it measured.
        run["rows"] = rows
        run["load_average"][1] = os.getloadavg()[0]
        with open(os.path.join(arguments.out, "results.md"), "w") as f:
            f.write(markdown_report(run, arguments.libraries, cases))
        with open(os.path.join(arguments.out, "results.json"), "w") as f:
            json.dump(run, f, indent=1)
        try:
            draw_chart(run, libraries, os.path.join(arguments.out, "benchmark.png"))
        except ImportError as error:
            print(f"no chart: {error} (bench/setup.sh installs matplotlib)", flush=True)

    if "W0" in arguments.workloads:
        rounds, repeats = (2, 5) if arguments.quick else (5, 10)
        run["busy_core"] = arguments.busy_core
        run["small_data_latency"] = small_data_latency(rounds, repeats, arguments.busy_core, arguments.omp_wait)
        print("\n".join(small_data_markdown(run["small_data_latency"], arguments.busy_core)), flush=True)
    rows = run_cases(cases, libraries, arguments.threads, timeout, arguments.omp_wait, write_outputs)
    rounds = arguments.growth_rounds if arguments.growth_rounds is not None else 2 if arguments.quick else 5
    if rounds > 0 and VELMOT in libraries and any(c.workload == "W4" for c in cases):
        run["velmot_growth"] = steadied_growth(cases, arguments.threads, timeout, arguments.omp_wait, rounds)
    run["complete"] = True
    write_outputs(rows)
    print("\n" + markdown_report(run, arguments.libraries, cases))
    print(f"written to {os.path.relpath(arguments.out, ROOT)}/ in {time.perf_counter() - started:.0f} s")


if __name__ == "__main__":
    main(sys.argv[1:])
