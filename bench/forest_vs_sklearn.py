"""Learns the same 100-tree forest with PyVelmot_wrap and scikit-learn and
prints the times and their ratio (figures only; nothing is asserted).

Synthetic data: 100,000 instances x 40 float64 features, 3 classes decided
by four features with 10% label noise; 6 features per split, full depth,
bootstrap samples as large as the data, 2 threads.

    PYTHONPATH=build/<dir> .venv/bin/python bench/forest_vs_sklearn.py [--trees N]
"""

import argparse
import time

import numpy as np


def synthetic_data(num_instances=100_000, num_features=40, seed=2024):
    rng = np.random.default_rng(seed)
    X = rng.random((num_instances, num_features))
    a = X[:, 0] + 0.5 * X[:, 1]
    b = X[:, 2] - X[:, 3]
    y = np.where(a > 0.75, 2, np.where(b > 0, 1, 0)).astype(np.int32)
    noisy = rng.random(num_instances) < 0.1
    y[noisy] = rng.integers(0, 3, noisy.sum())
    return X, y


def time_velmot(X, y, trees, threads):
    import PyVelmot_wrap

    PyVelmot_wrap.set_seed(1)
    start = time.perf_counter()
    forest, _ = PyVelmot_wrap.learn_di_gini(X.T, y, 3, trees, 1.0, 6, 0, threads, 1)
    elapsed = time.perf_counter() - start
    nodes = sum(tree.shape[1] for tree in forest) / len(forest)
    return elapsed, nodes


def time_sklearn(X, y, trees, threads):
    from sklearn.ensemble import RandomForestClassifier

    model = RandomForestClassifier(n_estimators=trees, max_features=6, n_jobs=threads, random_state=1)
    start = time.perf_counter()
    model.fit(X, y)
    elapsed = time.perf_counter() - start
    nodes = sum(est.tree_.node_count for est in model.estimators_) / trees
    return elapsed, nodes


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--trees", type=int, default=100)
    parser.add_argument("--threads", type=int, default=2)
    args = parser.parse_args()
    X, y = synthetic_data()
    cpu_start = time.process_time()
    velmot_s, velmot_nodes = time_velmot(X, y, args.trees, args.threads)
    velmot_cpu = time.process_time() - cpu_start
    print(
        f"velmot : {velmot_s:7.2f} s wall, {velmot_cpu:7.2f} s cpu, "
        f"{velmot_s / args.trees:.3f} s/tree, {velmot_nodes:.0f} nodes/tree"
    )
    cpu_start = time.process_time()
    sklearn_s, sklearn_nodes = time_sklearn(X, y, args.trees, args.threads)
    sklearn_cpu = time.process_time() - cpu_start
    print(
        f"sklearn: {sklearn_s:7.2f} s wall, {sklearn_cpu:7.2f} s cpu, "
        f"{sklearn_s / args.trees:.3f} s/tree, {sklearn_nodes:.0f} nodes/tree"
    )
    print(f"sklearn / velmot wall-time ratio: {sklearn_s / velmot_s:.2f}")


if __name__ == "__main__":
    main()
