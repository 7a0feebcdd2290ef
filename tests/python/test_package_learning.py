"""Forests learnt through the real module: reproducibility, memory layouts,
progress display, and data that could trap the module's search. (Labels,
feature names and probabilities are covered by test_package_dispatch.py
and scikit-learn's estimator checks.)"""

import subprocess
import sys
import threading
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from sklearn.datasets import make_classification
from velmot import RandomForestClassifier


def same_forest(first, second):
    return len(first.trees_) == len(second.trees_) and all(
        np.array_equal(a, b, equal_nan=True) for a, b in zip(first.trees_, second.trees_)
    )


@pytest.fixture(scope="module")
def data():
    return make_classification(n_samples=200, n_features=8, n_informative=5, n_classes=3, random_state=1)


@pytest.mark.parametrize("n_jobs", [1, 2, 3])
def test_an_int_seed_gives_the_same_forest_on_every_fit_with_or_without_progress_bar(data, n_jobs, capsys):
    X, y = data
    params = dict(n_estimators=23, random_state=7, n_jobs=n_jobs)
    forest = RandomForestClassifier(**params).fit(X, y)
    assert capsys.readouterr().err == ""
    first = list(forest.trees_)
    assert same_forest(forest, RandomForestClassifier(**params, verbose=1).fit(X, y))
    assert "23/23" in capsys.readouterr().err
    assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(first, forest.fit(X, y).trees_))


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


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_the_memory_layout_of_X_does_not_change_the_forest(dtype):
    # Large enough to be copied in several blocks of instances; missing
    # values, both zeros and ties reach the imputation and the ranking.
    X, y = make_classification(n_samples=12_000, n_features=8, n_informative=5, n_classes=3, random_state=4)
    X = X.astype(dtype)
    X[::7, 1] = np.nan
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
