"""What the package hands the compiled module: element types, views, labels
and learning arguments. The module is replaced by recorders here, so these
tests check the calls themselves, not the forests."""

from functools import partial

import numpy as np
import pytest
import PyVelmot_wrap
from module_helpers import leaf
from velmot import RandomForestClassifier
from velmot._learning import plan_chunks


class ModuleRecorder:
    """Stands in for the learn_*, test_* and prob_* functions and records
    every call; learning returns single-leaf trees voting for class 0 and
    the queued importances (uniform ones when none are queued)."""

    def __init__(self, monkeypatch, importances=()):
        self.calls = []
        self.importances = list(importances)
        for letter in "idsb":
            for name in [f"learn_{letter}i_{criterion}" for criterion in ("infogain", "gini", "gainratio")]:
                monkeypatch.setattr(PyVelmot_wrap, name, partial(self._learn, name))
            for name in (f"test_{letter}i", f"prob_{letter}d"):
                monkeypatch.setattr(PyVelmot_wrap, name, partial(self._predict, name))
        monkeypatch.setattr(PyVelmot_wrap, "set_seed", lambda seed: self.calls.append(("set_seed", seed)) or 0.0)

    def _learn(self, name, X_, Y_, num_classes, num_trees, sampling_prop, fte_per_split, max_depth, num_threads, _):
        self.calls.append((name, dict(locals())))
        uniform = np.full(X_.shape[0], 1.0 / X_.shape[0])
        return [leaf(0)] * num_trees, self.importances.pop(0) if self.importances else uniform

    def _predict(self, name, X_, forest_, num_classes, out, num_threads):
        self.calls.append((name, dict(X_=X_, out=out, num_threads=num_threads)))
        out[...] = 0
        return 0.0

    def named(self, prefix):
        return [arguments for name, arguments in self.calls if name.startswith(prefix)]


@pytest.fixture
def recorder(monkeypatch):
    return ModuleRecorder(monkeypatch)


X_INT = np.random.RandomState(0).randint(0, 5, size=(12, 3))
Y_INT = np.arange(12) % 2


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
def test_matrices_reach_the_module_as_feature_major_views_by_the_documented_conversion(recorder, X, letter, copied):
    forest = RandomForestClassifier(n_estimators=1).fit(X, Y_INT)
    forest.predict(X)
    forest.predict_proba(X)
    calls = recorder.named(f"learn_{letter}i_") + recorder.named(f"test_{letter}i") + recorder.named(f"prob_{letter}d")
    assert len(calls) == 3 and len(recorder.calls) == 4  # and one set_seed
    for call in calls:
        assert np.shares_memory(call["X_"], X) != copied
        np.testing.assert_array_equal(call["X_"].T.astype(np.float64), X.astype(np.float64))
    assert calls[1]["out"].dtype == np.int32 and calls[2]["out"].shape == (12, 2)


@pytest.mark.parametrize("criterion, suffix", [("entropy", "infogain"), ("log_loss", "infogain"), ("gain_ratio", "gainratio")])
def test_each_criterion_reaches_its_learner(recorder, criterion, suffix):
    RandomForestClassifier(n_estimators=1, criterion=criterion).fit(X_INT.astype(float), Y_INT)
    assert len(recorder.named(f"learn_di_{suffix}")) == 1


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
    forest = RandomForestClassifier(n_estimators=1).fit(X, y)
    np.testing.assert_array_equal(forest.classes_, classes)
    (learn,) = recorder.named("learn_")
    assert learn["Y_"].dtype == np.int32 and learn["Y_"].flags.c_contiguous
    np.testing.assert_array_equal(classes[learn["Y_"]], y)
    assert learn["num_classes"] == len(classes)
    np.testing.assert_array_equal(forest.predict(X), np.repeat(classes[:1], 6))


@pytest.mark.parametrize(
    "n_features, max_features, expected_fte, constant_row",
    [(16, "log2", 4, False), (16, 0.01, 1, False), (16, None, 16, True), (16, 1.0, 16, True), (1, "sqrt", 1, True)],
)
def test_all_features_is_asked_with_one_extra_constant_feature(
    recorder, n_features, max_features, expected_fte, constant_row
):
    # The module's all-features mode never leaves a node where a feature is
    # constant; one more feature than asked for puts it in random mode.
    X = np.random.RandomState(0).rand(20, n_features)
    forest = RandomForestClassifier(n_estimators=1, max_features=max_features).fit(X, np.arange(20) % 2)
    (learn,) = recorder.named("learn_")
    assert learn["fte_per_split"] == expected_fte
    assert learn["X_"].shape == (n_features + constant_row, 20)
    np.testing.assert_array_equal(learn["X_"][:n_features], X.T)
    assert not constant_row or np.all(learn["X_"][n_features] == 0)
    assert forest.feature_importances_.shape == (n_features,)


@pytest.mark.parametrize("n_samples, max_samples, wanted", [(7, 3, 3), (7, 0.05, 1), (49, 0.33, 16), (97, 1.0, 97)])
def test_bootstrap_size_is_exact_after_the_library_truncates(recorder, n_samples, max_samples, wanted):
    # 16 / 49 * 49 truncates to 15: the proportion must be nudged up.
    X = np.random.RandomState(0).rand(n_samples, 2)
    RandomForestClassifier(n_estimators=1, max_samples=max_samples).fit(X, np.arange(n_samples) % 2)
    assert int(recorder.named("learn_")[0]["sampling_prop"] * n_samples) == wanted


def test_depth_threads_chunks_and_seeds_are_passed_as_the_module_expects(recorder):
    RandomForestClassifier(n_estimators=1, max_depth=3, n_jobs=2).fit(X_INT, Y_INT).predict(X_INT)
    RandomForestClassifier(n_estimators=1, max_depth=2**40, n_jobs=-1).fit(X_INT, Y_INT)
    learns = recorder.named("learn_")
    assert [call["max_depth"] for call in learns] == [3, 2**31 - 1]
    assert learns[0]["num_threads"] == recorder.named("test_")[0]["num_threads"] == 2
    assert 1 <= learns[1]["num_threads"] <= 32
    recorder.calls.clear()
    RandomForestClassifier(n_estimators=25, random_state=0, n_jobs=3).fit(X_INT, Y_INT)
    names = [name for name, _ in recorder.calls]
    assert names[0::2] == ["set_seed"] * (len(names) // 2)  # each chunk right after its own seed
    seeds = [arguments for name, arguments in recorder.calls if name == "set_seed"]
    assert all(1 <= seed < 2**31 for seed in seeds) and len(set(seeds)) == len(seeds)
    sizes = [call["num_trees"] for call in recorder.named("learn_")]
    assert sizes == plan_chunks(25, 3) and sum(sizes) == 25 and all(size % 3 == 0 for size in sizes[:-1])


def test_importances_are_averaged_over_chunks_by_size_skipping_chunks_with_nan(monkeypatch):
    chunks = plan_chunks(25, 1)  # 3, ..., 3 and 1
    values = [np.array([1.0, 0.0])] * len(chunks)
    values[0], values[-1] = np.array([np.nan, np.nan]), np.array([0.0, 1.0])
    ModuleRecorder(monkeypatch, importances=values + [np.array([np.nan, np.nan])])
    X = X_INT[:, :2].astype(float)
    forest = RandomForestClassifier(n_estimators=25, max_features=1).fit(X, Y_INT)
    kept = 25 - chunks[0]
    np.testing.assert_allclose(forest.feature_importances_, [(kept - 1) / kept, 1 / kept])
    # No tree could split: zeros.
    forest = RandomForestClassifier(n_estimators=1, max_features=1).fit(X, Y_INT)
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
    first, alone = recorder.named("test_si")
    # Upper medians: float {1, 2, 3, 4} -> 3, {5, 7} -> 7; int {0..4} -> 2, {0, 0, 0, 5, 7} -> 0.
    expected = [3.0, 7.0] if dtype == np.float64 else [2.0, 0.0]
    np.testing.assert_array_equal(first["X_"][:, 0], expected)
    np.testing.assert_array_equal(alone["X_"][:, 0], expected)
    assert np.isnan(X[0, 0])  # the caller's matrix is left alone
