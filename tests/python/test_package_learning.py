"""Forests learnt through the package's core: reproducibility whatever the
threads, interruption, node statistics, memory layouts, progress display,
and data that could trap the grower's search. (Labels, feature names and
probabilities are covered by test_package_dispatch.py and scikit-learn's
estimator checks.)"""

import hashlib
import signal
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from sklearn.datasets import make_classification

import PyVelmot_wrap
from velmot import RandomForestClassifier, RandomForestRegressor, _core


def same_forest(first, second):
    return len(first.trees_) == len(second.trees_) and all(
        np.array_equal(a, b, equal_nan=True) for a, b in zip(first.trees_, second.trees_)
    )


@pytest.fixture(scope="module")
def data():
    return make_classification(n_samples=200, n_features=8, n_informative=5, n_classes=3, random_state=1)


@pytest.fixture(scope="module")
def larger_data():
    # Enough bootstrap draws (23 x 3,000) for the core to use every thread.
    return make_classification(n_samples=3000, n_features=8, n_informative=5, n_classes=3, random_state=2)


@pytest.fixture(scope="module")
def one_thread_forest(larger_data):
    return RandomForestClassifier(n_estimators=23, random_state=7, n_jobs=1).fit(*larger_data)


@pytest.mark.parametrize("n_jobs", [1, 2, 3, 7])
def test_an_int_seed_gives_the_same_forest_for_any_n_jobs_with_or_without_progress_bar(
    larger_data, one_thread_forest, n_jobs, capsys
):
    X, y = larger_data
    params = dict(n_estimators=23, random_state=7, n_jobs=n_jobs)
    forest = RandomForestClassifier(**params).fit(X, y)
    assert capsys.readouterr().err == ""
    assert same_forest(forest, one_thread_forest)
    assert np.array_equal(forest.feature_importances_, one_thread_forest.feature_importances_)
    assert same_forest(one_thread_forest, RandomForestClassifier(**params, verbose=1).fit(X, y))
    assert "23/23" in capsys.readouterr().err


# Digests of package forests on distinct-valued data (a changed digest is a
# changed forest): sha256 of trees_, node counts and impurities, under the
# default leaf limit and under the library's own rule; regression forests
# on tied features.
PACKAGE_DIGESTS = {
    ("gini", 1): "a0896da88611cc0a8824e6480b1e307cf6859063a22db2e139cf4b56f443d7cb",
    ("entropy", 1): "fe74c7c94d6ba24da5a00115fa1bcc823c304bbd9fb82a099a37a6348cc9cfa3",
    ("gain_ratio", 1): "3c1cd19b933c27f8435df02ecc6e1cf6c8ee082426c2acd557070a753849aca4",
    ("gini", "pairs"): "801b416653d15b4c4920f29283aa72133ff802e830818e2db7235bc0e56d3643",
    ("entropy", "pairs"): "b226e5d750fe683754fcc8b7b54cd577bf28b336ef39c9dd017cba3647455d83",
    ("gain_ratio", "pairs"): "f0b43a0ff29cdd028373d0ecf96f0ca1794b225966637b42498c94a55ec91749",
    ("squared_error", 1): "9a8497b1367f811aaee5db8804fa8856b0b258aa93ed98d53c0eadff5fde4bfd",
    ("squared_error", "pairs"): "c8a67f0203a382f0a74d1d2916a4e9a5f0daf8a22d7f181710b9a4f9fc068605",
}


@pytest.mark.parametrize("criterion, min_samples_leaf", list(PACKAGE_DIGESTS))
def test_package_forests_match_their_recorded_digests(criterion, min_samples_leaf):
    rng = np.random.default_rng(28)
    X = rng.permuted(np.tile(np.arange(150.0), (5, 1)), axis=1).T / 7
    params = dict(n_estimators=6, criterion=criterion, min_samples_leaf=min_samples_leaf, random_state=2026)
    if criterion == "squared_error":
        # Tied feature values and real targets: the order in which a node's
        # sums add up decides its leaf means to the last bit.
        X = np.round(X)
        forest = RandomForestRegressor(**params).fit(X, X[:, 0] - 2 * X[:, 1] + np.sin(X[:, 2]) / 3)
    else:
        forest = RandomForestClassifier(**params).fit(
            X, (X[:, 0] + X[:, 1] > X[:, 2] + 10).astype(int) + (X[:, 3] > 15)
        )
    digest = hashlib.sha256()
    for array in (*forest.trees_, forest.nodes_.count, forest.nodes_.impurity):
        digest.update(np.ascontiguousarray(array).tobytes())
    assert digest.hexdigest() == PACKAGE_DIGESTS[criterion, min_samples_leaf]


def test_node_counts_add_up_and_the_core_predicts_as_the_module(data):
    X, y = data
    forest = RandomForestClassifier(n_estimators=5, max_samples=150, criterion="entropy", random_state=1).fit(X, y)
    proba = np.empty((len(X), 3))
    PyVelmot_wrap.prob_dd(np.ascontiguousarray(X.T), forest.trees_, 3, proba, 2)
    assert np.array_equal(forest.predict_proba(X), proba)
    nodes = forest.nodes_
    for begin, end in zip(nodes.offsets[:-1], nodes.offsets[1:]):
        left, right, count = (array[begin:end] for array in (nodes.left, nodes.right, nodes.count))
        split = left >= 0
        assert count[0] == 150
        assert np.array_equal(count[split], count[left[split]] + count[right[split]])
    leaves = nodes.left < 0
    assert np.all(nodes.impurity >= 0) and np.all(nodes.impurity[leaves & (nodes.count == 1)] == 0)


def test_a_damaged_core_call_says_what_is_wrong(data):
    X, y = data
    features, labels = np.ascontiguousarray(X.T), y.astype(np.int32)
    with pytest.raises(TypeError, match="X must hold int32, float64, float32 or uint8"):
        _core.TrainingData(features.astype(np.int64), labels, 3, 1)
    with pytest.raises(TypeError, match="y must be a int32 array"):
        _core.TrainingData(features, y.astype(np.float64), 3, 1)
    with pytest.raises(ValueError, match="200 labels for 10 samples"):
        _core.TrainingData(features[:, :10], labels, 3, 1)
    with pytest.raises(ValueError, match="label lies outside"):
        learn = dict(seed=0, first_tree=0, last_tree=2, sample_prop=1.0, features_per_split=2, max_depth=0)
        _core.learn(_core.TrainingData(features, labels, 2, 1), criterion="gini", n_threads=1, **learn)
    forest = RandomForestClassifier(n_estimators=2, random_state=0).fit(X, y).nodes_.as_dict()
    with pytest.raises(ValueError, match="feature"):
        _core.predict(forest, X[:, :2], 3, 1, False)
    with pytest.raises(TypeError, match="left must be a int32 array"):
        _core.predict({**forest, "left": forest["left"].astype(np.int64)}, X, 3, 1, True)
    with pytest.raises(ValueError, match="must have two distinct children after it"):
        _core.predict({**forest, "left": np.zeros_like(forest["left"])}, X, 3, 1, False)
    with pytest.raises(ValueError, match="n_classes differs from the prepared forest's"):
        _core.predict(_core.PreparedForest(forest, 3), X, 4, 1, False)
    with pytest.raises(ValueError, match="n_classes differs from the prepared forest's"):
        _core.predict_mean(_core.PreparedForest(forest, 3), X, 1)


def test_a_last_use_frees_the_set_only_when_alone_and_refuses_later_calls(larger_data):
    X, y = larger_data
    features, labels = np.ascontiguousarray(X.T), y.astype(np.int32)
    learn = dict(
        criterion="gini", seed=0, first_tree=0, sample_prop=1.0, features_per_split=3, max_depth=0, n_threads=2
    )
    fields = ("left", "threshold", "value")
    expected = {n: _core.learn(_core.TrainingData(features, labels, 3, 2), last_tree=n, **learn) for n in (3, 1000)}
    shared, results, grown = _core.TrainingData(features, labels, 3, 2), {}, []

    def last_use_while_learning(done):  # progress comes while the 1000-tree call grows its trees
        if not results:
            grown.append(done)
            results[3] = _core.learn(shared, last_tree=3, last_use=True, **learn)

    results[1000] = _core.learn(shared, last_tree=1000, on_progress=last_use_while_learning, **learn)
    assert grown[0] < 1000 and sorted(results) == [3, 1000]
    for n, forest in results.items():
        np.testing.assert_equal([forest[k] for k in fields], [expected[n][k] for k in fields])
    with pytest.raises(ValueError, match="prepare it again"):
        _core.learn(shared, last_tree=1, **learn)


def test_ctrl_c_stops_a_fit_leaving_the_estimator_unfitted():
    X, y = make_classification(n_samples=20_000, n_features=20, random_state=0)
    forest = RandomForestClassifier(n_estimators=2_000, n_jobs=2, random_state=0)
    timer = threading.Timer(0.5, signal.pthread_kill, (threading.main_thread().ident, signal.SIGINT))
    started = time.monotonic()
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        forest.fit(X, y)
    assert time.monotonic() - started < 5
    assert not hasattr(forest, "trees_") and not hasattr(forest, "nodes_")
    assert forest.set_params(n_estimators=3).fit(X[:500], y[:500]).nodes_.n_trees == 3


def test_seeds_entropy_and_random_state_instances(data):
    X, y = data

    def fit(random_state=None):
        return RandomForestClassifier(n_estimators=5, random_state=random_state).fit(X, y)

    assert not same_forest(fit(0), fit(1))
    assert not same_forest(fit(), fit())
    shared = np.random.RandomState(3)
    first = fit(shared)
    assert not same_forest(first, fit(shared))
    assert same_forest(first, fit(np.random.RandomState(3)))


def test_fits_from_several_threads_at_once_stay_reproducible(data):
    X, y = data
    seeds = [11, 12, 13, 14]

    def fit(seed, start=None):
        if start is not None:
            start.wait(timeout=60)
        return RandomForestClassifier(n_estimators=30, random_state=seed, n_jobs=2).fit(X, y)

    expected = [fit(seed) for seed in seeds]
    start = threading.Barrier(len(seeds))
    with ThreadPoolExecutor(len(seeds)) as pool:
        results = list(pool.map(fit, seeds, [start] * len(seeds)))
    assert all(same_forest(result, forest) for result, forest in zip(results, expected))


@pytest.mark.parametrize("missing", [True, False])
@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_the_memory_layout_of_X_does_not_change_the_forest(dtype, missing):
    # Large enough to be copied in several blocks of instances; missing
    # values, both zeros and ties reach the imputation and the ranking.
    # Without missing values, X in Fortran order is learnt in place.
    X, y = make_classification(n_samples=12_000, n_features=8, n_informative=5, n_classes=3, random_state=4)
    X = X.astype(dtype)
    X[::7, 1] = np.nan if missing else 1.5
    X[:, 2] = np.round(X[:, 2])
    X[::5, 3] = -0.0
    X[1::5, 3] = 0.0
    params = dict(n_estimators=4, max_features=3, max_depth=6, random_state=2, n_jobs=2)
    forests = [
        RandomForestClassifier(**params).fit(layout, y)
        for layout in (X, np.asfortranarray(X), np.repeat(X, 2, axis=0)[::2], X[:, ::-1][:, ::-1])
    ]
    assert all(same_forest(forests[0], other) for other in forests[1:])


# The module's search over all features never leaves a node where a feature
# is constant; these fits must finish all the same.
TRAPS = {
    "one feature with repeats": ("np.repeat([0.0, 1.0, 1.0, 2.0], 25)[:, None]", "None"),
    "one feature, sqrt": ("np.repeat([3, 3, 5, 5, 7], 20)[:, None].astype(np.int32)", '"sqrt"'),
    "all features, a constant column": ("np.column_stack([np.repeat([1.0, 2.0], 50), np.zeros(100)])", "None"),
    "all features by count": ("np.repeat(np.arange(10, dtype=np.uint8), 10).reshape(50, 2)", "2"),
}


def test_fits_that_could_trap_the_feature_search_finish():
    # One interpreter for all cases: a hang shows up as the timeout.
    fits = "\n".join(
        f"X = {X_code}\n"
        f"RandomForestClassifier(n_estimators=20, max_features={max_features}, random_state=0)"
        f".fit(X, np.arange(len(X)) % 3)\n"
        f"print({trap!r}, flush=True)"
        for trap, (X_code, max_features) in TRAPS.items()
    )
    code = f"import numpy as np\nfrom velmot import RandomForestClassifier\n{fits}\n"
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    assert result.stdout.splitlines() == list(TRAPS)
