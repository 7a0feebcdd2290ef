"""Bad input is refused with a message naming the problem, before any call
into the compiled module (which trusts its caller)."""

import numpy as np
import pytest

import PyVelmot_wrap
from velmot import RandomForestClassifier


@pytest.fixture
def module_untouched(monkeypatch):
    """Any learning or prediction call would fail the test."""

    def forbidden(*args):
        raise AssertionError("the module was called despite invalid input")

    names = ["set_seed"]
    for letter in "idsb":
        names += [f"learn_{letter}i_{c}" for c in ("infogain", "gini", "gainratio")]
        names += [f"test_{letter}i", f"prob_{letter}d", f"prob_{letter}s"]
    for name in names:
        monkeypatch.setattr(PyVelmot_wrap, name, forbidden, raising=False)


X = np.arange(40.0).reshape(10, 4)
y = np.arange(10) % 2


@pytest.mark.parametrize(
    "params, message",
    [
        ({"n_estimators": 0}, "'n_estimators' parameter of RandomForestClassifier must be an int in the range"),
        ({"n_estimators": 2**63}, "'n_estimators' parameter of RandomForestClassifier must be an int in the range"),
        ({"n_estimators": 10**9}, "n_estimators=1000000000 trees cannot fit in this machine's"),
        ({"criterion": "mse"}, "'criterion' parameter of RandomForestClassifier must be a str among"),
        ({"max_features": "auto"}, "'max_features' parameter"),
        ({"max_features": 1.5}, "'max_features' parameter"),
        ({"max_depth": 0}, "'max_depth' parameter"),
        ({"max_samples": 0.0}, "'max_samples' parameter"),
        ({"n_jobs": 33}, "'n_jobs' parameter of RandomForestClassifier must be an int in the range [1, 32]"),
        ({"n_jobs": 0}, "'n_jobs' parameter"),
        ({"random_state": "seed"}, "'random_state' parameter"),
        ({"verbose": -1}, "'verbose' parameter"),
        ({"max_features": 5}, "max_features=5 is more than the 4 features of X"),
        ({"max_samples": 11}, "max_samples=11 is more than the 10 samples of X"),
    ],
)
def test_out_of_range_parameters_are_rejected_at_fit(module_untouched, params, message):
    with pytest.raises(ValueError) as raised:
        RandomForestClassifier(**params).fit(X, y)
    assert message in str(raised.value)


@pytest.mark.parametrize(
    "X_bad, y_bad, message",
    [
        (np.arange(10.0), y, "Expected 2D array, got 1D array"),
        (np.zeros((2, 5, 2)), y[:2], "Found array with dim 3"),
        (X, y[:9], "inconsistent numbers of samples: \\[10, 9\\]"),
        (X[:0], y[:0], "0 sample\\(s\\)"),
        (X[:, :0], y, "0 feature\\(s\\)"),
        (X, np.linspace(0, 1, 10), "Unknown label type: continuous"),
        (X, np.stack([y, y], axis=1), "y should be a 1d array"),
        (np.where(X > 30, np.inf, X), y, "Input X contains infinity"),
        (X, np.where(y > 0, np.nan, 0.0), "Input y contains NaN"),
        (X.astype(complex), y, "Complex data not supported"),
        (np.where(X > 30, 1e308, X), y, "values beyond \\+-8.99e\\+307, too large for float64 thresholds"),
        (np.where(X > 30, 3e38, X).astype(np.float32), y, "too large for float32 thresholds"),
        (np.array([["a", "b"]] * 10, dtype=object), y, "could not convert string to float"),
    ],
)
def test_bad_training_data_is_rejected(module_untouched, X_bad, y_bad, message):
    with pytest.raises(ValueError, match=message):
        RandomForestClassifier().fit(X_bad, y_bad)


def test_sparse_input_is_rejected_with_a_type_error(module_untouched):
    scipy_sparse = pytest.importorskip("scipy.sparse")
    with pytest.raises(TypeError, match="dense data is required"):
        RandomForestClassifier().fit(scipy_sparse.csr_matrix(X), y)


def test_prediction_refuses_an_empty_matrix():
    # Feature counts, dimensions, values and fit state are among the
    # scikit-learn estimator checks.
    forest = RandomForestClassifier(n_estimators=2, random_state=0).fit(X, y)
    for method in (forest.predict, forest.predict_proba, forest.predict_log_proba):
        with pytest.raises(ValueError, match="0 sample"):
            method(X[:0])
