"""What the package hands the core: element types, views, labels and
learning arguments. The core's functions are wrapped by a recorder here,
which records every call and then makes it."""

import numpy as np
import pytest

from velmot import RandomForestClassifier, RandomForestRegressor, _core
from velmot._features import as_module_dtype, upper_medians
from velmot._learning import mean_importances


class CoreRecorder:
    """Records the arguments of every TrainingData, learn and count_votes
    call, then makes the call."""

    def __init__(self, monkeypatch):
        self.calls = []
        for name in ("TrainingData", "learn", "predict"):
            monkeypatch.setattr(_core, name, self._recording(name, getattr(_core, name)))

    def _recording(self, name, function):
        def record(*args, **kwargs):
            self.calls.append((name, args, kwargs))
            return function(*args, **kwargs)

        return record

    def named(self, name):
        return [(args, kwargs) for called, args, kwargs in self.calls if called == name]


@pytest.fixture
def recorder(monkeypatch):
    return CoreRecorder(monkeypatch)


X_INT = np.random.RandomState(0).randint(0, 5, size=(12, 3))
Y_INT = np.arange(12) % 2


DTYPES = {"i": np.int32, "d": np.float64, "s": np.float32, "b": np.uint8}


@pytest.mark.parametrize(
    "X, letter, copied",
    [
        pytest.param(X_INT.astype(np.int32), "i", False, id="int32"),
        pytest.param(np.asfortranarray(X_INT, dtype=np.float64), "d", False, id="float64-F"),
        pytest.param(X_INT.astype(np.float32), "s", False, id="float32"),
        pytest.param(X_INT.astype(np.uint8), "b", False, id="uint8"),
        pytest.param(X_INT > 2, "b", False, id="bool"),
        pytest.param(X_INT.astype(np.int8), "i", True, id="int8"),
        pytest.param(X_INT.astype(np.uint64), "i", True, id="uint64"),
        pytest.param(np.where(X_INT == 4, 2**40, X_INT), "d", True, id="int64-past-int32"),
        pytest.param(X_INT.astype(np.float16), "s", True, id="float16"),
        pytest.param(X_INT.astype(">i4"), "i", True, id="big-endian-i4"),
    ],
)
def test_matrices_reach_the_core_as_views_by_the_documented_conversion(recorder, X, letter, copied):
    forest = RandomForestClassifier(n_estimators=1).fit(X, Y_INT)
    forest.predict(X)
    forest.predict_proba(X)
    ((data_args, _),) = recorder.named("TrainingData")
    votes = [args[1] for args, _ in recorder.named("predict")]
    assert len(recorder.named("learn")) == 1 and len(votes) == 2
    for matrix in (data_args[0].T, *votes):  # learning takes X feature-major
        assert matrix.dtype == DTYPES[letter] and np.shares_memory(matrix, X) != copied
        np.testing.assert_array_equal(matrix.astype(np.float64), X.astype(np.float64))


@pytest.mark.parametrize("criterion, name", [("gini", "gini"), ("entropy", "infogain"), ("gain_ratio", "gainratio")])
def test_one_learning_call_per_fit_with_the_arguments_the_core_expects(recorder, criterion, name):
    forest = RandomForestClassifier(n_estimators=25, criterion=criterion, max_depth=3, n_jobs=2, random_state=9)
    forest.fit(X_INT, Y_INT).predict(X_INT)
    RandomForestClassifier(n_estimators=1, max_depth=2**40, n_jobs=-1).fit(X_INT, Y_INT)
    (_, first), (_, second) = recorder.named("learn")
    assert first["criterion"] == name and (first["first_tree"], first["last_tree"]) == (0, 25)
    assert first["seed"] == 9 and first["max_depth"] == 3 and first["n_threads"] == 2
    assert recorder.named("predict")[0][0][3] == 2
    assert second["max_depth"] == 2**31 - 1 and 1 <= second["n_threads"] <= 32 and 0 <= second["seed"] < 2**64


@pytest.mark.parametrize(
    "y, classes",
    [
        (np.array(["b", "a", "c", "a", "b", "c"]), np.array(["a", "b", "c"])),
        (np.array([10, -3, 10, 7, -3, 7]), np.array([-3, 7, 10])),
        (np.array(["x", "y", "x", "y", "x", "y"], dtype=object), np.array(["x", "y"], dtype=object)),
    ],
)
def test_labels_are_encoded_as_contiguous_int32_codes_and_decoded_on_predict(recorder, y, classes):
    X = np.arange(12.0).reshape(6, 2)
    forest = RandomForestClassifier(n_estimators=3, random_state=0).fit(X, y)
    np.testing.assert_array_equal(forest.classes_, classes)
    ((_, codes, n_classes, *_), _) = recorder.named("TrainingData")[0]
    assert codes.dtype == np.int32 and codes.flags.c_contiguous and n_classes == len(classes)
    np.testing.assert_array_equal(classes[codes], y)
    proba = forest.predict_proba(X)
    np.testing.assert_array_equal(forest.predict(X), classes[proba.argmax(axis=1)])
    assert set(np.unique(proba * 3)) <= {0.0, 1.0, 2.0, 3.0}


@pytest.mark.parametrize(
    "n_features, max_features, expected_fte, constant_row",
    [(16, "log2", 4, False), (16, 0.01, 1, False), (16, None, 16, True), (16, 1.0, 16, True), (1, "sqrt", 1, True)],
)
def test_all_features_is_asked_with_one_extra_constant_feature(
    recorder, n_features, max_features, expected_fte, constant_row
):
    # The grower's all-features mode never leaves a node where a feature is
    # constant; one more feature than asked for puts it in random mode.
    X = np.random.RandomState(0).rand(20, n_features)
    forest = RandomForestClassifier(n_estimators=1, max_features=max_features).fit(X, np.arange(20) % 2)
    ((features, *_), _) = recorder.named("TrainingData")[0]
    assert recorder.named("learn")[0][1]["features_per_split"] == expected_fte
    assert features.shape == (n_features + constant_row, 20)
    np.testing.assert_array_equal(features[:n_features], X.T)
    assert not constant_row or np.all(features[n_features] == 0)
    assert forest.feature_importances_.shape == (n_features,)


@pytest.mark.parametrize("n_samples, max_samples, wanted", [(7, 3, 3), (7, 0.05, 1), (49, 0.33, 16), (97, 1.0, 97)])
def test_bootstrap_size_is_exact_after_the_library_truncates(recorder, n_samples, max_samples, wanted):
    # 16 / 49 * 49 truncates to 15: the proportion must be nudged up.
    X = np.random.RandomState(0).rand(n_samples, 2)
    forest = RandomForestClassifier(n_estimators=1, max_samples=max_samples).fit(X, np.arange(n_samples) % 2)
    assert int(recorder.named("learn")[0][1]["sample_prop"] * n_samples) == wanted == forest.nodes_.count[0]


def test_importances_are_the_mean_over_trees_with_an_informative_split():
    rows = np.array([[np.nan, np.nan], [1.0, 0.0], [0.25, 0.75], [np.nan, np.nan]])
    np.testing.assert_array_equal(mean_importances(rows), [0.625, 0.375])
    assert mean_importances(rows[[0, 3]]) is None
    # No tree could split: zeros.
    forest = RandomForestClassifier(n_estimators=1, max_features=1).fit(X_INT[:, :2] * 0, Y_INT)
    np.testing.assert_array_equal(forest.feature_importances_, [0.0, 0.0])


@pytest.mark.parametrize("dtype", [np.float64, np.int32, np.uint8])
def test_missing_values_at_predict_are_filled_from_fit_whatever_the_training_dtype(recorder, dtype):
    X_train = np.array([[1, 0], [0, 5], [3, 0], [2, 7], [4, 0]], dtype=dtype)
    if dtype == np.float64:
        X_train[X_train == 0] = np.nan  # the library imputes at fit itself
    forest = RandomForestClassifier(n_estimators=1).fit(X_train, [0, 1, 0, 1, 0])
    X = np.array([[np.nan, np.nan], [9.0, 9.0]], dtype=np.float32)
    forest.predict(X)
    forest.predict(X[:1])
    first, alone = (args[1] for args, _ in recorder.named("predict"))
    # Upper medians: float {1, 2, 3, 4} -> 3, {5, 7} -> 7; int {0..4} -> 2, {0, 0, 0, 5, 7} -> 0.
    expected = [3.0, 7.0] if dtype == np.float64 else [2.0, 0.0]
    np.testing.assert_array_equal(first[0], expected)
    np.testing.assert_array_equal(alone[0], expected)
    assert np.isnan(X[0, 0])  # the caller's matrix is left alone


@pytest.mark.parametrize("dtype", [np.float64, np.float32, np.int32, np.int16, np.uint8])
@pytest.mark.parametrize("n_samples", [9, 10])
@pytest.mark.parametrize("Forest", [RandomForestClassifier, RandomForestRegressor])
def test_fit_medians_are_numpys_whether_the_ranking_or_numpy_gives_them(Forest, n_samples, dtype):
    rng = np.random.RandomState(n_samples)
    ties, spread = rng.randint(0, 4, n_samples), rng.randint(-90, 90, n_samples) % 256
    zeros = np.array([0.0, -0.0, 2.0, -2.0, -0.0] * 2)[:n_samples]  # the middle value a zero
    X = np.column_stack([ties, spread, zeros, spread + 0.5 * (dtype in (np.float64, np.float32))]).astype(dtype)
    if X.dtype.kind == "f":
        X[1, 3] = np.nan  # ranked after imputation: its median must come from numpy
    forest = Forest(n_estimators=1, max_features=None, random_state=0).fit(X, np.arange(n_samples) % 2)
    # Equal as values: of two zeros, either sign may serve.
    assert np.array_equal(forest._missing_value_fill_, upper_medians(as_module_dtype(X)))
