"""Same-session A/B of two installs of the velmot package (for example the
current build against an earlier commit's), on W1 and W2 of bench/run.py,
and two Python threads fitting at once against one.

    .venv/bin/python bench/package_ab.py --baseline DIR [--rounds 3] [--quick]

DIR is a folder that holds the other install (``pip install --target DIR``);
it is put first on PYTHONPATH for the baseline's processes. The two installs
alternate, round after round, each round in fresh processes, and the
report gives medians with the smallest and largest figure beside them: the
machine may be shared, so quote the spread. Nothing is asserted.

Threads: the same W1-shaped fit (n_jobs=1) alone, then in two Python
threads at once; the ratio is the pair's wall time over the single fit's
(1.0: the two fits ran fully in parallel, 2.0: one after the other).
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run as bench  # noqa: E402

# One process: loads the workload, fits and predicts; prints the seconds.
FIT_AND_PREDICT = r"""
import json, sys, time, threading
import numpy as np
import velmot
folder, workload, trees, threads, mode = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), sys.argv[5]
X, y, X_test = (np.load(f"{folder}/{workload}_{name}.npy") for name in ("X", "y", "X_test"))
def fit():
    return velmot.RandomForestClassifier(n_estimators=trees, max_features=6, n_jobs=threads, random_state=0).fit(X, y)
if mode == "fit-predict":
    started = time.perf_counter(); forest = fit(); fitted = time.perf_counter()
    forest.predict(X_test); done = time.perf_counter()
    print(json.dumps({"fit": fitted - started, "predict": done - fitted}))
else:
    started = time.perf_counter(); fit(); alone = time.perf_counter() - started
    pair = [threading.Thread(target=fit) for _ in range(2)]
    started = time.perf_counter()
    for thread in pair: thread.start()
    for thread in pair: thread.join()
    print(json.dumps({"alone": alone, "pair": time.perf_counter() - started}))
"""


def write_workloads(folder, sizes):
    X, y, n_test = bench.synthetic_pool(sizes)
    train, test = X[: sizes.n_train], X[-n_test:]
    train_bytes, test_bytes = bench.quantise_to_bytes(train, test)
    for name, (X_train, X_test) in {"W1": (train, test), "W2": (train_bytes, test_bytes)}.items():
        np.save(f"{folder}/{name}_X.npy", X_train)
        np.save(f"{folder}/{name}_y.npy", y[: sizes.n_train])
        np.save(f"{folder}/{name}_X_test.npy", X_test)


def measure(folder, install, *arguments):
    env = dict(os.environ, OMP_WAIT_POLICY="PASSIVE")
    if install is not None:
        env["PYTHONPATH"] = install + os.pathsep + env.get("PYTHONPATH", "")
    command = [sys.executable, "-c", FIT_AND_PREDICT, folder, *map(str, arguments)]
    return json.loads(subprocess.run(command, capture_output=True, text=True, check=True, env=env).stdout)


def summary(values):
    return f"{np.median(values):7.2f} s ({min(values):.2f}-{max(values):.2f})"


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--baseline", required=True, help="folder holding the baseline install")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--quick", action="store_true", help="bench/run.py's quick sizes")
    parser.add_argument("--threads", type=int, default=2, help="n_jobs of the fit-and-predict runs")
    arguments = parser.parse_args(argv)
    sizes = bench.QUICK if arguments.quick else bench.FULL
    installs = {"baseline": arguments.baseline, "current": None}
    seconds = {}
    with tempfile.TemporaryDirectory() as folder:
        write_workloads(folder, sizes)
        for round_number in range(arguments.rounds):
            order = list(installs) if round_number % 2 == 0 else list(installs)[::-1]
            for name in order:
                for workload in ("W1", "W2"):
                    result = measure(folder, installs[name], workload, sizes.trees, arguments.threads, "fit-predict")
                    for step, value in result.items():
                        seconds.setdefault((workload, step, name), []).append(value)
                result = measure(folder, installs[name], "W1", sizes.trees, 1, "threads")
                for step, value in result.items():
                    seconds.setdefault(("threads", step, name), []).append(value)
                print(f"round {round_number + 1} {name} done", flush=True)
    print(f"\n{arguments.rounds} rounds, installs alternating; median (min-max); n_jobs={arguments.threads}")
    for workload in ("W1", "W2"):
        for step in ("fit", "predict"):
            base, current = seconds[(workload, step, "baseline")], seconds[(workload, step, "current")]
            ratio = np.median(current) / np.median(base)
            print(
                f"{workload} {step:8s} baseline {summary(base)}  current {summary(current)}  "
                f"current/baseline {ratio:.2f}"
            )
    for name in installs:
        alone, pair = seconds[("threads", "alone", name)], seconds[("threads", "pair", name)]
        ratios = [p / a for p, a in zip(pair, alone)]
        print(
            f"two threads, {name}: one fit {summary(alone)}, two at once {summary(pair)}, "
            f"ratio {np.median(ratios):.2f} ({min(ratios):.2f}-{max(ratios):.2f})"
        )


if __name__ == "__main__":
    main(sys.argv[1:])
