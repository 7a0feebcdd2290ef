"""Held-out accuracy (R^2 for W5's regression) of the package's forests
under two leaf rules, on workloads of bench/run.py: min_samples_leaf=1
(leaves of one in-bag sample) against "pairs" (the library's growth rule),
several seeds each, alternating.

    .venv/bin/python bench/leaf_rule.py [--seeds 3] [--quick] [--workloads W1,W3,W5]

Prints accuracy per seed, the mean difference, fit seconds and node counts.
Nothing is asserted.
"""

import argparse
import os
import sys
import time

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run as bench  # noqa: E402

import velmot  # noqa: E402

RULES = (1, "pairs")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seeds", type=int, default=3)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--workloads", default="W1,W3")
    args = parser.parse_args()
    sizes = bench.QUICK if args.quick else bench.FULL
    for case in bench.build_cases(sizes, tuple(args.workloads.split(","))):
        estimator = velmot.RandomForestRegressor if case.task == "regression" else velmot.RandomForestClassifier
        print(case.title, f"{case.n_trees} trees, {case.features_per_split} features per split, 2 threads")
        scores = {rule: [] for rule in RULES}
        for seed in range(args.seeds):
            for rule in RULES:
                forest = estimator(
                    n_estimators=case.n_trees,
                    max_features=case.features_per_split,
                    min_samples_leaf=rule,
                    n_jobs=2,
                    random_state=seed,
                )
                started = time.perf_counter()
                forest.fit(case.X_train, case.y_train)
                seconds = time.perf_counter() - started
                accuracy = forest.score(case.X_test, case.y_test)
                scores[rule].append(accuracy)
                print(
                    f"  seed {seed} min_samples_leaf={rule!r:8} score {accuracy:.4f}  "
                    f"fit {seconds:6.2f} s  nodes/tree {forest.nodes_.offsets[-1] / case.n_trees:9.0f}"
                )
        ones, pairs = np.array(scores[1]), np.array(scores["pairs"])
        print(
            f"  mean: 1 {ones.mean():.4f}, pairs {pairs.mean():.4f}; "
            f"1 minus pairs {100 * (ones - pairs).mean():+.2f} points (per seed {np.round(100 * (ones - pairs), 2)})"
        )


if __name__ == "__main__":
    main()
