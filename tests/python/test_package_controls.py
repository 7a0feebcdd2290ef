"""The estimators' model controls: apply and decision_path, leaf-size and
split limits, out-of-bag estimates, sample and class weights."""

import numpy as np
import pytest
from sklearn.datasets import make_classification, make_friedman1

from velmot import RandomForestClassifier, RandomForestRegressor

ESTIMATORS = [RandomForestClassifier, RandomForestRegressor]


@pytest.fixture(scope="module")
def data():
    return make_classification(n_samples=300, n_features=6, n_informative=4, n_classes=3, random_state=5)


@pytest.mark.parametrize("estimator", ESTIMATORS)
def test_apply_and_decision_path_follow_the_trees_by_hand(data, estimator):
    X, y = data
    forest = estimator(n_estimators=4, random_state=0, n_jobs=2).fit(X, y)
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


def split_decreases(forest):
    """Each split's weighted impurity decrease N_t / N (i - N_l / N_t i_l - N_r / N_t i_r)."""
    nodes, decreases = forest.nodes_, []
    for first, last in zip(nodes.offsets[:-1], nodes.offsets[1:]):
        count, impurity = nodes.count[first:last], nodes.impurity[first:last]
        for node in np.flatnonzero(nodes.left[first:last] >= 0):
            left, right = nodes.left[first + node], nodes.right[first + node]
            children = count[left] * impurity[left] + count[right] * impurity[right]
            decreases.append((count[node] * impurity[node] - children) / count[0])
    return np.array(decreases)


@pytest.mark.parametrize(
    "params, holds",
    [
        ({"min_samples_leaf": 5}, lambda f, leaf: f.nodes_.count[leaf].min() >= 5),
        ({"min_samples_leaf": 0.05}, lambda f, leaf: f.nodes_.count[leaf].min() >= 15),
        ({"min_samples_leaf": 1}, lambda f, leaf: f.nodes_.count[leaf].min() == 1),
        ({"min_samples_split": 40}, lambda f, leaf: f.nodes_.count[~leaf].min() >= 40),
        ({"min_impurity_decrease": 0.01}, lambda f, leaf: split_decreases(f).min() >= 0.01 - 1e-12),
    ],
)
@pytest.mark.parametrize("estimator", ESTIMATORS)
def test_growth_limits_hold_for_every_node(data, estimator, params, holds):
    forest = estimator(n_estimators=5, random_state=1, **params).fit(*data)
    assert holds(forest, forest.nodes_.left < 0)
    assert forest.nodes_.offsets[-1] > 5 * 3  # the limits left trees to check


@pytest.mark.parametrize(
    "estimator, problem, estimate",
    [
        (
            RandomForestClassifier,
            make_classification(4000, 10, n_informative=6, n_classes=3, random_state=9),
            "oob_decision_function_",
        ),
        (RandomForestRegressor, make_friedman1(4000, 10, noise=1.0, random_state=9), "oob_prediction_"),
    ],
)
def test_the_oob_score_estimates_the_held_out_score_whatever_n_jobs(estimator, problem, estimate):
    X, y = problem
    forests = [
        estimator(n_estimators=60, oob_score=True, random_state=4, n_jobs=n_jobs).fit(X[:2000], y[:2000])
        for n_jobs in (1, 2, 3)
    ]
    assert abs(forests[0].oob_score_ - forests[0].score(X[2000:], y[2000:])) < 0.02
    for forest in forests[1:]:
        assert np.array_equal(getattr(forest, estimate), getattr(forests[0], estimate))
        assert forest.oob_score_ == forests[0].oob_score_


def test_samples_in_every_bag_have_no_oob_estimate_and_a_scorer_sees_the_labels(data):
    X, y = data
    labels = np.array(["a", "b", "c"])[y]
    with pytest.warns(UserWarning, match="in the bootstrap sample of every tree"):
        forest = RandomForestClassifier(n_estimators=2, oob_score=lambda t, p: np.mean(t == p) - 1).fit(X, labels)
    missing = np.isnan(forest.oob_decision_function_).all(axis=1)
    assert 0 < missing.sum() < len(y)
    assert -1 < forest.oob_score_ < 0


def test_equal_weights_give_the_unweighted_forest_and_zero_weights_never_count(data):
    X, y = data
    X = X.copy()
    X[:5, 0] = np.nan
    unweighted = RandomForestClassifier(n_estimators=5, random_state=3).fit(X, y)
    for kwargs, params in [({"sample_weight": np.full(len(y), 2.5)}, {}), ({}, {"class_weight": {0: 1, 1: 1, 2: 1}})]:
        weighted = RandomForestClassifier(n_estimators=5, random_state=3, **params).fit(X, y, **kwargs)
        assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(unweighted.trees_, weighted.trees_))
    # Class 2 weighs nothing: no leaf predicts it, and a huge outlier of
    # weight 0 moves neither a threshold nor the medians that fill NaN.
    X[y == 2] = 1e6
    weights = (y != 2).astype(float)
    forest = RandomForestClassifier(n_estimators=20, random_state=3).fit(X, y, sample_weight=weights)
    assert not np.any(forest.predict(X) == 2)
    assert np.all(np.abs(forest.nodes_.threshold[forest.nodes_.left >= 0]) < 1e3)
    assert np.all(np.abs(forest._missing_value_fill_) < 1e3)


def test_an_integer_weight_draws_like_copies_of_the_sample():
    rng = np.random.default_rng(0)
    X = rng.uniform(size=(400, 1))
    y = (rng.uniform(size=400) < 0.3).astype(int)
    grid = np.linspace(0, 1, 101)[:, None]

    def mean_proba(X, y, **fit):
        # Bootstrap samples of 400 draws, from the 400 rows or from their copies.
        forests = [RandomForestClassifier(n_estimators=30, max_samples=400, random_state=s) for s in range(5)]
        return np.mean([forest.fit(X, y, **fit).predict_proba(grid)[:, 1] for forest in forests])

    weighted = mean_proba(X, y, sample_weight=np.where(y == 1, 3.0, 1.0))
    copied = mean_proba(np.vstack([X, X[y == 1], X[y == 1]]), np.concatenate([y, y[y == 1], y[y == 1]]))
    assert abs(weighted - copied) < 0.03
    assert weighted - mean_proba(X, y) > 0.1


def test_balanced_class_weights_raise_minority_recall():
    X, y = make_classification(
        n_samples=3000, n_features=8, n_informative=4, weights=[0.95], flip_y=0.02, class_sep=0.6, random_state=3
    )
    minority = y[:1000] == 1

    def recall(class_weight):
        forest = RandomForestClassifier(n_estimators=50, min_samples_leaf=5, class_weight=class_weight, random_state=0)
        return np.mean(forest.fit(X[1000:], y[1000:]).predict(X[:1000])[minority] == 1)

    assert recall("balanced") > recall(None) + 0.15


@pytest.mark.parametrize(
    "params, sample_weight, message",
    [
        ({}, -np.ones(300), "Negative values"),
        ({}, np.full(300, np.nan), "NaN"),
        ({}, np.full(300, np.inf), "infinity"),
        ({}, np.zeros(300), "at least one non-zero"),
        ({"class_weight": {0: 0, 1: 0, 2: 0}}, None, "every sample weight is 0"),
        ({"class_weight": {7: 1}}, None, "not in y"),
        ({"class_weight": {0: -1}}, None, "0 or more"),
        ({"class_weight": {0: 1e300}}, np.full(300, 1e300), "overflow"),
        ({"class_weight": "weird"}, None, "class_weight"),
        ({"min_samples_leaf": 1.0}, None, "min_samples_leaf"),
        ({"min_samples_split": 1}, None, "min_samples_split"),
        ({"min_impurity_decrease": -0.1}, None, "min_impurity_decrease"),
        ({"oob_score": "yes"}, None, "oob_score"),
    ],
)
def test_invalid_controls_say_what_to_fix(data, params, sample_weight, message):
    with pytest.raises(ValueError, match=message):
        RandomForestClassifier(n_estimators=2, **params).fit(*data, sample_weight=sample_weight)
