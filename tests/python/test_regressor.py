"""velmot.RandomForestRegressor: trees recomputed by an independent
squared-error learner, precision, accuracy beside scikit-learn, model files."""

import functools
import io
import pickle
from collections import Counter, deque

import numpy as np
import pytest
from sklearn.datasets import load_diabetes, make_friedman1
from sklearn.ensemble import RandomForestRegressor as ScikitRegressor
from sklearn.model_selection import train_test_split

import velmot
from test_module_exactness import Generator, tie_break
from velmot import RandomForestClassifier, RandomForestRegressor

_MASK = (1 << 64) - 1


def splitmix64(state):
    state = (state + 0x9E3779B97F4A7C15) & _MASK
    z = ((state ^ (state >> 30)) * 0xBF58476D1CE4E5B9) & _MASK
    z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & _MASK
    return state, z ^ (z >> 31)


def tree_generator(seed, k):
    state = seed ^ splitmix64(k)[1]
    words = []
    while len(words) < 4:
        state, z = splitmix64(state)
        words += [z >> 1] if z >> 1 else []
    return Generator(words)


def best_split(X, y, weight, items, f, n, mean, total):
    """(decrease, (f, lower, upper)): every boundary between distinct values,
    the first best one kept; the unsplit node's bounds are both the smallest.
    The copies of equal (value, target) pairs are added as one product."""
    runs = sorted(Counter((X[i, f], y[i]) for i in items for _ in range(weight[i])).items())
    best, where, left, left_n = total * total / n, (f, runs[0][0][0], runs[0][0][0]), 0.0, 0
    for ((value, target), copies), ((upper, _), _) in zip(runs, runs[1:]):
        left, left_n = left + copies * (target - mean), left_n + copies
        if value != upper:
            score = left * left / left_n + (total - left) * (total - left) / (n - left_n)
            if best < score:
                best, where = score, (f, value, upper)
    return best - total * total / n, where


def reference_tree(X, y, seed, k):
    """Node rows (left, right, feature, threshold, value, count) and importances."""
    rng, ni = tree_generator(seed, k), len(y)
    weight = np.bincount([rng.bounded(ni) for _ in range(ni)], minlength=ni)
    rows, importances = [[-1, -1, -1, np.nan, 0.0, 0]], np.zeros(X.shape[1])
    queue = deque([(0, [i for i in range(ni) if weight[i]])])
    while queue:
        node, items = queue.popleft()
        n = sum(int(weight[i]) for i in items)
        mean = sum(float(weight[i]) * y[i] for i in items) / n  # sums in instance order, as the library's
        total = sum(float(weight[i]) * (y[i] - mean) for i in items)
        rows[node][4:] = [mean, n]
        if len({y[i] for i in items}) == 1 or n <= 1:
            continue
        splittable = [f for f in range(X.shape[1]) if len({X[i, f] for i in items}) > 1]
        if not splittable:  # a leaf with the threshold 0 of no split
            rows[node][3] = 0.0
            continue
        g, (f, lower, upper) = tie_break(rng, (best_split(X, y, weight, items, f, n, mean, total) for f in splittable))
        threshold = lower if lower == upper else (lower + upper) * 0.5
        importances[f] += max(g, 0.0)
        left = [i for i in items if X[i, f] < threshold]
        right = [i for i in items if not X[i, f] < threshold]
        rows[node][3] = threshold
        if left and right:  # min_samples_leaf=1: children of one sample or more
            rows[node][:3], rows[node][4] = [len(rows), len(rows) + 1, f], -2.0
            queue.extend([(len(rows), left), (len(rows) + 1, right)])
            rows += [[-1, -1, -1, np.nan, 0.0, 0], [-1, -1, -1, np.nan, 0.0, 0]]
    return np.array(rows), importances / (importances.sum() or 1)


@pytest.mark.parametrize("kind", ["distinct", "ties", "constant", "step"])
def test_trees_equal_an_independent_squared_error_learner(kind):
    rng = np.random.RandomState(0)
    X = rng.randint(0, 4, size=(40, 3)).astype(float) if kind == "ties" else rng.normal(size=(40, 3))
    X[:, 0] += 3 * np.sign(X[:, 0])  # a gap around the step at 0
    y = {"constant": np.full(40, 3.25), "step": np.where(X[:, 0] < 0, -2.0, 5.5)}.get(kind, np.round(X[:, 0] + 2, 2))
    forest = RandomForestRegressor(n_estimators=4, max_features=None, random_state=7).fit(X, y)
    nodes, importances = forest.nodes_, []
    rows = np.column_stack([nodes.left, nodes.right, nodes.feature, nodes.threshold, nodes.value, nodes.count])
    for k in range(4):
        expected, tree_importances = reference_tree(X, y, 7, k)
        np.testing.assert_array_equal(rows[nodes.offsets[k] : nodes.offsets[k + 1]], expected, err_msg=f"tree {k}")
        importances.append(tree_importances)
    np.testing.assert_allclose(forest.feature_importances_, np.mean(importances, axis=0))
    if kind in ("constant", "step"):
        np.testing.assert_array_equal(forest.predict(X), y)


def test_targets_offset_by_a_million_give_the_same_splits():
    rng = np.random.RandomState(3)
    X = rng.rand(1000, 3)
    # Small targets on a grid of 2^-20, so that adding 1e6 rounds none of them.
    y = np.round((1e-3 * (X[:, 0] > 0.5) + 1e-4 * rng.normal(size=1000)) * 2**20) / 2**20
    near, far = (
        RandomForestRegressor(n_estimators=5, max_depth=3, random_state=2).fit(X, y + shift) for shift in (0, 1e6)
    )
    for name in ("left", "right", "feature", "count"):
        np.testing.assert_array_equal(getattr(near.nodes_, name), getattr(far.nodes_, name))
    splits = near.nodes_.feature >= 0  # a depth-limited leaf keeps the threshold of a split it did not make
    np.testing.assert_array_equal(near.nodes_.threshold[splits], far.nodes_.threshold[splits])
    np.testing.assert_allclose(far.predict(X) - 1e6, near.predict(X), atol=1e-9)


@pytest.mark.parametrize("n_jobs", [1, 2])
def test_predictions_are_leaf_values_added_in_tree_order_whatever_the_node_numbering(n_jobs):
    X, y = make_friedman1(n_samples=301, n_features=6, random_state=0)
    forest = RandomForestRegressor(n_estimators=7, n_jobs=n_jobs, random_state=0).fit(X, y)
    nodes = forest.nodes_
    expected = functools.reduce(np.add, nodes.value[forest.apply(X) + nodes.offsets[:-1]].T)
    np.testing.assert_array_equal(forest.predict(X), expected / 7)
    # Depth first instead of breadth first: siblings apart, children still after their parents.
    order, number = [], np.empty(len(nodes.left), dtype=np.int32)
    for begin in nodes.offsets[:-1]:
        pending = [0]
        while pending:
            node = begin + pending.pop()
            number[node] = len(order) - begin
            order.append(node)
            pending += [nodes.right[node], nodes.left[node]] if nodes.left[node] >= 0 else []
    renumbered = {name: array if name == "offsets" else array[order] for name, array in nodes.as_dict().items()}
    tree_start = np.repeat(nodes.offsets[:-1], np.diff(nodes.offsets))
    for side in ("left", "right"):
        renumbered[side] = np.where(renumbered[side] >= 0, number[renumbered[side] + tree_start], -1)
    np.testing.assert_array_equal(velmot._core.predict_mean(renumbered, X, n_jobs), expected / 7)


@pytest.mark.parametrize("dtype", [np.float32, np.int32, np.uint8])
def test_a_tree_does_not_depend_on_the_feature_type(dtype):
    # Ranked floats and value-sorted integers, ties and repeated draws alike.
    rng = np.random.RandomState(3)
    X = rng.randint(0, 6, size=(300, 4))
    y = X[:, 0] - 2.0 * X[:, 1] + np.sin(X[:, 2]) / 3 + rng.normal(size=300).round(1)
    nodes = [
        RandomForestRegressor(n_estimators=5, max_features=2, random_state=1).fit(X.astype(t), y).nodes_
        for t in (np.float64, dtype)
    ]
    for name in ("left", "feature", "value", "count", "impurity"):
        np.testing.assert_array_equal(getattr(nodes[0], name), getattr(nodes[1], name))


@pytest.mark.parametrize("data", [load_diabetes, lambda return_X_y: make_friedman1(n_samples=2000, random_state=0)])
def test_held_out_r2_is_close_to_scikit_learns(data):
    X_train, X_test, y_train, y_test = train_test_split(*data(return_X_y=True), random_state=0)
    scores = [
        model(n_estimators=100, n_jobs=2, random_state=0).fit(X_train, y_train).score(X_test, y_test)
        for model in (RandomForestRegressor, ScikitRegressor)
    ]
    assert abs(scores[0] - scores[1]) < 0.02


def test_pickle_and_save_round_trips_and_the_task_is_checked():
    X, y = make_friedman1(n_samples=200, random_state=1)
    X[::7, 2] = np.nan
    forest = RandomForestRegressor(n_estimators=6, max_features=0.5, random_state=1).fit(X, y.astype(np.float32))
    forest.save(buffer := io.BytesIO())
    for restored in (velmot.load(io.BytesIO(buffer.getvalue())), pickle.loads(pickle.dumps(forest))):
        assert type(restored) is RandomForestRegressor and restored.get_params() == forest.get_params()
        np.testing.assert_array_equal(restored.predict(X), forest.predict(X))
        np.testing.assert_array_equal(restored.nodes_.impurity, forest.nodes_.impurity)
    with pytest.raises(ValueError, match="holds a regression forest, not a classification one"):
        RandomForestClassifier._from_model(*forest._to_model())
    with pytest.raises(ValueError, match="beyond"):
        RandomForestRegressor().fit(X, np.full(200, 1e200))
