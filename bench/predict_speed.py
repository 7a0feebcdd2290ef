"""Prediction alone, without refitting: W1 (classification) and W5
(regression) of bench/run.py, fitted once into a folder, then predicted in
fresh processes, round after round, Velmot beside a peer.

    .venv/bin/python bench/predict_speed.py --folder DIR --fit     # once
    .venv/bin/python bench/predict_speed.py --folder DIR [--rounds 5]

The fit step saves each workload's held-out rows, Velmot's forest (.npz)
and the peer's (pickle: scikit-learn for W5, scikit-learn-intelex for W1, the
peers of the targets). A round loads each model in its own process
and times its first predict call, which for Velmot includes laying the
forest out, as bench/run.py counts it, then a second call. Figures are
medians over the rounds, with the smallest and largest beside them, and
the ratio Velmot / peer per round; Velmot's CPU seconds (all threads) too,
steadier than wall time when the machine is shared. Nothing is asserted.
"""

import argparse
import importlib
import os
import pickle
import statistics
import subprocess
import sys
import time

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run as bench  # noqa: E402

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "peers"))

THREADS = 2
# The peer module in bench/peers of each workload.
PEERS = {"W1": "sklearnex_rf", "W5": "sklearn_rf"}

# One process: loads a model and the held-out rows, prints two predict times.
PREDICT = r"""
import pickle, sys, time
import numpy as np
folder, workload, library = sys.argv[1:4]
X = np.load(f"{folder}/{workload}_X_test.npy")
if library == "velmot":
    import velmot
    model = velmot.load(f"{folder}/{workload}_velmot.npz")
else:
    with open(f"{folder}/{workload}_{library}.pkl", "rb") as f:
        model = pickle.load(f)
times = []
for _ in range(2):
    started, started_cpu = time.perf_counter(), time.process_time()
    predicted = model.predict(X)
    times += [time.perf_counter() - started, time.process_time() - started_cpu]
np.save(f"{folder}/{workload}_{library}_predicted.npy", predicted)
print(*times)
"""


def fit(folder):
    os.makedirs(folder, exist_ok=True)
    for case in bench.build_cases(bench.FULL, ("W1", "W5")):
        if case.workload not in PEERS:
            continue
        config = {
            "task": case.task,
            "n_trees": case.n_trees,
            "features_per_split": case.features_per_split,
            "n_threads": THREADS,
            "seed": bench.SEED,
        }
        np.save(f"{folder}/{case.workload}_X_test.npy", case.X_test)
        started = time.perf_counter()
        velmot_rf = importlib.import_module("velmot_rf")
        velmot_rf.fit(case.X_train, case.y_train, config).save(f"{folder}/{case.workload}_velmot.npz")
        print(f"{case.workload}: Velmot fitted in {time.perf_counter() - started:.1f} s", flush=True)
        peer = PEERS[case.workload]
        started = time.perf_counter()
        model = importlib.import_module(peer).fit(case.X_train, case.y_train, config)
        with open(f"{folder}/{case.workload}_{peer}.pkl", "wb") as f:
            pickle.dump(model, f, protocol=pickle.HIGHEST_PROTOCOL)
        print(f"{case.workload}: {peer} fitted in {time.perf_counter() - started:.1f} s", flush=True)


def spread(values):
    return f"{statistics.median(values):.3f} ({min(values):.3f}-{max(values):.3f})"


def measure(folder, rounds):
    for workload, peer in PEERS.items():
        seconds = {"velmot": [], peer: []}
        cpu, again, again_cpu = [], [], []
        for _ in range(rounds):
            for library in seconds:
                out = subprocess.run(
                    [sys.executable, "-c", PREDICT, folder, workload, library],
                    check=True,
                    capture_output=True,
                    text=True,
                ).stdout.split()
                seconds[library].append(float(out[0]))
                if library == "velmot":
                    cpu.append(float(out[1]))
                    again.append(float(out[2]))
                    again_cpu.append(float(out[3]))
        ratios = [v / p for v, p in zip(seconds["velmot"], seconds[peer])]
        print(
            f"{workload}: Velmot first predict {spread(seconds['velmot'])} s (CPU {spread(cpu)}), "
            f"second {spread(again)} s (CPU {spread(again_cpu)}); "
            f"{peer} {spread(seconds[peer])} s; ratio {spread(ratios)}  (load {os.getloadavg()[0]:.2f})",
            flush=True,
        )


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--folder", required=True)
    parser.add_argument("--fit", action="store_true", help="fit and save the models (slow: minutes)")
    parser.add_argument("--rounds", type=int, default=5)
    args = parser.parse_args()
    if args.fit:
        fit(args.folder)
    else:
        measure(args.folder, args.rounds)


if __name__ == "__main__":
    main()
