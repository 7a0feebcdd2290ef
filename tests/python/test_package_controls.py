"""The estimators' model controls: apply and decision_path, leaf-size and
split limits, out-of-bag estimates, sample and class weights."""

import numpy as np
import pytest
from sklearn.datasets import make_classification

from velmot import RandomForestClassifier


@pytest.fixture(scope="module")
def data():
    return make_classification(n_samples=300, n_features=6, n_informative=4, n_classes=3, random_state=5)


def test_apply_and_decision_path_follow_the_trees_by_hand(data):
    X, y = data
    forest = RandomForestClassifier(n_estimators=4, random_state=0, n_jobs=2).fit(X, y)
    X = X[:40].copy()
    X[0, :] = np.nan  # filled with the training medians, as prediction does
    leaves = forest.apply(X)
    indicator, offsets = forest.decision_path(X)
    filled = np.where(np.isnan(X), forest._missing_value_fill_, X)
    for k, tree in enumerate(forest.trees_):
        for i, row in enumerate(filled):
            node, path = 0, []
            while tree[0, node] >= 0:
                path.append(node)
                node = int(tree[0, node] if row[int(tree[2, node])] < tree[3, node] else tree[1, node])
            assert leaves[i, k] == node
            columns = indicator[i].indices
            assert list(columns[(columns >= offsets[k]) & (columns < offsets[k + 1])] - offsets[k]) == path + [node]
