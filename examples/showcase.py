"""What Velmot does on real data, beside scikit-learn's random forest.

Learns forests on the handwritten digits (as bytes and as float64) and on a
synthetic 100,000-instance set, predicts a held-out part, and prints
accuracy, fit and predict seconds and the most important features for both
libraries, with the same trees, features per split and threads.
"""

import argparse
import time

import numpy as np
from sklearn.datasets import load_digits, make_classification
from sklearn.ensemble import RandomForestClassifier as SklearnForest
from sklearn.model_selection import train_test_split

import velmot


def timed(call):
    start = time.perf_counter()
    result = call()
    return result, time.perf_counter() - start


def compare(title, X, y, n_trees, features_per_split, n_jobs, feature_names=None):
    X_train, X_test, y_train, y_test = train_test_split(X, y, test_size=0.3, random_state=1, stratify=y)
    print(
        f"\n== {title}: {X_train.shape[0]} training and {X_test.shape[0]} held-out instances, "
        f"{X.shape[1]} features ({X.dtype}), {n_trees} trees, {features_per_split} features per split, "
        f"{n_jobs} threads"
    )
    rows = []
    models = {
        "velmot": velmot.RandomForestClassifier(
            n_estimators=n_trees, max_features=features_per_split, n_jobs=n_jobs, random_state=7
        ),
        "scikit-learn": SklearnForest(
            n_estimators=n_trees, max_features=features_per_split, n_jobs=n_jobs, random_state=7
        ),
    }
    for name, model in models.items():
        _, fit_seconds = timed(lambda model=model: model.fit(X_train, y_train))
        predicted, predict_seconds = timed(lambda model=model: model.predict(X_test))
        probabilities, proba_seconds = timed(lambda model=model: model.predict_proba(X_test))
        assert np.allclose(probabilities.sum(axis=1), 1.0)
        accuracy = float(np.mean(predicted == y_test))
        rows.append((name, accuracy, fit_seconds, predict_seconds, proba_seconds, model.feature_importances_))
    print(f"  {'library':<14}{'accuracy':>10}{'fit s':>10}{'predict s':>11}{'proba s':>10}")
    for name, accuracy, fit_s, predict_s, proba_s, _ in rows:
        print(f"  {name:<14}{accuracy:>10.4f}{fit_s:>10.2f}{predict_s:>11.3f}{proba_s:>10.3f}")
    velmot_row, sklearn_row = rows
    print(
        f"  velmot fit time is {velmot_row[2] / sklearn_row[2]:.2f} x scikit-learn's, "
        f"predict time {velmot_row[3] / sklearn_row[3]:.2f} x"
    )
    names = feature_names if feature_names is not None else [f"x{j}" for j in range(X.shape[1])]
    for name, *_, importances in rows:
        top = np.argsort(importances)[::-1][:5]
        listed = ", ".join(f"{names[j]} {importances[j]:.3f}" for j in top)
        print(f"  top features ({name}): {listed}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--jobs", type=int, default=2, help="threads for both libraries (default 2)")
    parser.add_argument("--synthetic-instances", type=int, default=100_000)
    args = parser.parse_args()

    digits = load_digits()
    pixel_names = [f"pixel{j // 8}_{j % 8}" for j in range(64)]
    compare("digits as uint8", digits.data.astype(np.uint8), digits.target, 200, 8, args.jobs, pixel_names)
    compare("digits as float64", digits.data.astype(np.float64), digits.target, 200, 8, args.jobs, pixel_names)

    X, y = make_classification(
        n_samples=args.synthetic_instances, n_features=20, n_informative=10, n_redundant=4, n_classes=3, random_state=3
    )
    compare("synthetic", X, y, 50, 4, args.jobs)


if __name__ == "__main__":
    main()
