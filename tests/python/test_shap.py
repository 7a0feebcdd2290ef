"""forest.shap_values: exact Shapley values of the forest's output."""

import itertools
import math

import numpy as np
import pytest

import velmot
from velmot._shap import leaf_outputs

ESTIMATORS = [
    getattr(velmot, name) for name in ("RandomForestClassifier", "RandomForestRegressor") if hasattr(velmot, name)
]


def output(forest, X):
    return forest.predict_proba(X) if hasattr(forest, "classes_") else forest.predict(X)


def known_features_value(forest, x, known):
    """The mean over trees of the tree's output when the features in
    `known` follow x and every other split sends x both ways, weighted by
    the children's in-bag counts: the value of a coalition."""
    nodes, (columns, outputs, n_outputs) = forest.nodes_, leaf_outputs(forest)

    def walk(at, base):
        left, right = base + nodes.left[at], base + nodes.right[at]
        if nodes.left[at] < 0:
            return np.eye(n_outputs)[columns[at]] * outputs[at]
        if nodes.feature[at] in known:
            return walk(left if x[nodes.feature[at]] < nodes.threshold[at] else right, base)
        return (nodes.count[left] * walk(left, base) + nodes.count[right] * walk(right, base)) / nodes.count[at]

    return np.mean([walk(base, base) for base in nodes.offsets[:-1]], axis=0)


@pytest.mark.parametrize("estimator", ESTIMATORS)
def test_shap_values_are_shapley_values_and_add_up_to_the_output(estimator):
    rng = np.random.default_rng(8)
    X = rng.normal(size=(400, 4)).round(1)
    y = np.digitize(X[:, 0] - X[:, 1] + rng.normal(size=400), [-1, 1])
    X[rng.random(400) < 0.1, 2] = np.nan
    small = estimator(3, max_depth=4, random_state=1).fit(X, y)
    rows = np.where(np.isnan(X[:4]), small._missing_value_fill_, X[:4])
    rows[0, small.nodes_.feature[0]] = small.nodes_.threshold[0]  # a value on the root's threshold goes right
    values = small.shap_values(rows)
    weight = [math.factorial(r) * math.factorial(3 - r) / 24 for r in range(4)]  # Shapley's, of 4 features
    for x, phi in zip(rows, values):
        for i, others in ((i, [j for j in range(4) if j != i]) for i in range(4)):
            subsets = [set(S) for r in range(4) for S in itertools.combinations(others, r)]
            expected = sum(
                weight[len(S)] * (known_features_value(small, x, S | {i}) - known_features_value(small, x, S))
                for S in subsets
            )
            np.testing.assert_allclose(phi[i], expected.reshape(np.shape(phi[i])), atol=1e-12)
    forest = estimator(20, random_state=0, n_jobs=2).fit(X, y)
    values, base = forest.shap_values(X, return_expected_value=True)
    np.testing.assert_allclose(base + values.sum(axis=1), output(forest, X), rtol=0, atol=1e-6)
