"""ONNX export on W1: the exported graph's labels and probabilities in
onnxruntime against Velmot's own on the 50,000 held-out rows, with the
seconds of export and of prediction in each.

    .venv/bin/python bench/onnx_agreement.py [--trees 100]
"""

import argparse
import os
import tempfile
import time

import numpy as np


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--trees", type=int, default=100)
    args = parser.parse_args()
    import onnxruntime
    from sklearn.datasets import make_classification

    import velmot

    # W1's draw (bench/run.py): training rows first, the held-out rows last.
    X, y = make_classification(n_samples=150_000, n_features=40, n_informative=20, n_classes=3, random_state=0)
    X_train, y_train, X_test = X[:100_000], y[:100_000], X[-50_000:]
    print(f"load average: {os.getloadavg()[0]:.2f}")
    forest = velmot.RandomForestClassifier(args.trees, max_features=6, n_jobs=-1, random_state=0).fit(X_train, y_train)
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "w1.onnx")
        start = time.perf_counter()
        forest.to_onnx(path)
        export = time.perf_counter() - start
        size = os.path.getsize(path) / 2**20
        session = onnxruntime.InferenceSession(path, providers=["CPUExecutionProvider"])
    start = time.perf_counter()
    labels, proba = session.run(None, {"X": X_test})
    onnx_seconds = time.perf_counter() - start
    start = time.perf_counter()
    expected_labels, expected_proba = forest.predict(X_test), forest.predict_proba(X_test)
    velmot_seconds = time.perf_counter() - start
    print(f"{args.trees} trees, {forest.nodes_.offsets[-1]:,} nodes; export {export:.2f} s, {size:.0f} MiB")
    print(f"labels equal on {np.mean(labels == expected_labels):.6f} of {len(X_test):,} held-out rows")
    print(f"largest probability difference {np.abs(proba - expected_proba).max():.3g} (float32 rounding)")
    print(f"predict + predict_proba: onnxruntime {onnx_seconds:.2f} s, Velmot {velmot_seconds:.2f} s")


if __name__ == "__main__":
    main()
