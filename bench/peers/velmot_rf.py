"""Velmot through its Python package, as a user would call it."""

import numpy as np

import velmot

# Imported here, as every peer imports its estimators before the clock
# starts: velmot loads them (and scikit-learn under them) on first use, a
# second that would otherwise count as fit time.
from velmot import RandomForestClassifier, RandomForestRegressor


def describe():
    return {"version": velmot.__version__, "method": "exact"}


def fit(X, y, config):
    regression = config.get("task") == "regression"
    forest = (RandomForestRegressor if regression else RandomForestClassifier)(
        n_estimators=config["n_trees"],
        criterion="squared_error" if regression else "gini",
        max_features=config["features_per_split"],
        max_depth=None,
        max_samples=None,  # a bootstrap sample as large as the training set
        n_jobs=config["n_threads"],
        random_state=config["seed"],
    )
    return forest.fit(X, y)


def predict(forest, X):
    return forest.predict(X)


def mean_path_length(forest, X, sampled_trees=10):
    """Splits on each instance's way to its leaf, averaged over the instances
    and the first sampled_trees trees (rows of a tree array: left, right,
    feature, threshold, label; a leaf has no left child)."""
    depths = []
    for tree in forest.trees_[:sampled_trees]:
        left, right, feature = (tree[row].astype(np.int64) for row in range(3))
        threshold = tree[3]
        depth = np.zeros(len(X), dtype=np.int64)
        rows = np.arange(len(X))
        node = np.zeros(len(X), dtype=np.int64)
        while rows.size:
            splits = left[node] >= 0
            rows, node = rows[splits], node[splits]
            depth[rows] += 1
            goes_left = X[rows, feature[node]] < threshold[node]
            node = np.where(goes_left, left[node], right[node])
        depths.append(depth.mean())
    return float(np.mean(depths))
