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

LETTERS = "idsb"
CRITERIA = ("infogain", "gini", "gainratio")


class ModuleRecorder:
    """Stands in for the learn_*, test_* and prob_* functions and records
    every call; learning returns single-leaf trees voting for class 0."""

    def __init__(self, monkeypatch, importances=None):
        self.calls = []
        self.importances = importances
        for letter in LETTERS:
            for name in [f"learn_{letter}i_{criterion}" for criterion in CRITERIA]:
                monkeypatch.setattr(PyVelmot_wrap, name, partial(self._learn, name), raising=False)
            for name in (f"test_{letter}i", f"prob_{letter}d", f"prob_{letter}s"):
                monkeypatch.setattr(PyVelmot_wrap, name, partial(self._predict, name), raising=False)
        monkeypatch.setattr(PyVelmot_wrap, "set_seed", lambda seed: self.calls.append(("set_seed", seed)) or 0.0)

    def _learn(
        self, name, X_, Y_, num_classes, num_trees, sampling_prop, fte_per_split, max_depth, num_threads, with_importances
    ):
        arguments = dict(locals())
        del arguments["self"], arguments["name"], arguments["with_importances"]
        self.calls.append((name, arguments))
        if self.importances is None:
            return [leaf(0) for _ in range(num_trees)], np.full(X_.shape[0], 1.0 / X_.shape[0])
        return [leaf(0) for _ in range(num_trees)], np.asarray(self.importances.pop(0), dtype=np.float64)

    def _predict(self, name, X_, forest_, num_classes, out, num_threads):
        self.calls.append((name, dict(X_=X_, out=out, num_threads=num_threads)))
        out[...] = 0
        return 0.0

    def named(self, prefix):
        return [arguments for name, arguments in self.calls if name.startswith(prefix)]


@pytest.fixture
def recorder(monkeypatch):
    return ModuleRecorder(monkeypatch)


def data(dtype, n_samples=12, n_features=3, order="C"):
    rng = np.random.RandomState(0)
    X = np.asarray(rng.randint(0, 5, size=(n_samples, n_features)), dtype=dtype, order=order)
    return X, np.arange(n_samples) % 2


@pytest.mark.parametrize(
    "dtype, letter, criterion, suffix",
    [(np.int32, "i", "gini", "gini"), (np.float64, "d", "entropy", "infogain"),
     (np.float32, "s", "log_loss", "infogain"), (np.uint8, "b", "gain_ratio", "gainratio")],
)
@pytest.mark.parametrize("order", ["C", "F"])
def test_native_dtypes_reach_the_chosen_learner_as_feature_major_views_without_copies(
    recorder, dtype, letter, criterion, suffix, order
):
    X, y = data(dtype, order=order)
    forest = RandomForestClassifier(n_estimators=1, criterion=criterion).fit(X, y)
    forest.predict(X)
    forest.predict_proba(X)

    (learn,) = recorder.named(f"learn_{letter}i_{suffix}")
    assert len(recorder.named("learn_")) == 1
    (test,) = recorder.named(f"test_{letter}i")
    (prob,) = recorder.named(f"prob_{letter}d")
    for call in (learn, test, prob):
        assert call["X_"].dtype == dtype and np.shares_memory(call["X_"], X)
        np.testing.assert_array_equal(call["X_"], X.T)
    assert test["out"].dtype == np.int32 and test["out"].shape == (12,)
    assert prob["out"].dtype == np.float64 and prob["out"].shape == (12, 2)


X_INT, Y_INT = data(np.int64)


@pytest.mark.parametrize(
    "X, letter, copied",
    [
        pytest.param(X_INT > 2, "b", False, id="bool"),
        pytest.param(X_INT.astype(np.int8), "i", True, id="int8"),
        pytest.param(X_INT.astype(np.uint64), "i", True, id="uint64"),
        pytest.param(np.where(X_INT == 4, 2**40, X_INT), "d", True, id="int64-past-int32"),
        pytest.param(X_INT.astype(np.float16), "s", True, id="float16"),
        pytest.param(X_INT.astype(np.longdouble), "d", True, id="longdouble"),
        pytest.param(X_INT.astype(">f8"), "d", True, id="big-endian-f8"),
        pytest.param(X_INT.astype(">i4"), "i", True, id="big-endian-i4"),
    ],
)
def test_other_dtypes_follow_the_documented_conversion(recorder, X, letter, copied):
    RandomForestClassifier(n_estimators=1).fit(X, Y_INT)
    (learn,) = recorder.named(f"learn_{letter}i_")
    assert np.shares_memory(learn["X_"], X) != copied
    np.testing.assert_array_equal(learn["X_"].T.astype(np.float64), X.astype(np.float64))


@pytest.mark.parametrize(
    "y, classes",
    [
        (np.array(["b", "a", "c", "a", "b", "c"]), np.array(["a", "b", "c"])),
        (np.array([10, -3, 10, 7, -3, 7]), np.array([-3, 7, 10])),
        (np.array([True, False, True, False, True, False]), np.array([False, True])),
        (np.array(["x", "y", "x", "y", "x", "y"], dtype=object), np.array(["x", "y"], dtype=object)),
    ],
)
def test_labels_are_encoded_as_contiguous_int32_codes_and_decoded_on_predict(recorder, y, classes):
    X = np.arange(12.0).reshape(6, 2)
    forest = RandomForestClassifier(n_estimators=1).fit(X, y)
    np.testing.assert_array_equal(forest.classes_, classes)
    (learn,) = recorder.named("learn_")
    labels = learn["Y_"]
    assert labels.dtype == np.int32 and labels.flags.c_contiguous
    np.testing.assert_array_equal(classes[labels], y)
    assert learn["num_classes"] == len(classes) == forest.n_classes_
    # The recorder's forest votes for code 0: the first class comes back.
    np.testing.assert_array_equal(forest.predict(X), np.repeat(classes[:1], 6))


@pytest.mark.parametrize(
    "n_features, max_features, expected_fte, constant_row",
    [
        (16, "log2", 4, False),
        (16, 0.01, 1, False),
        (16, None, 16, True),
        (16, 1.0, 16, True),
        (1, "sqrt", 1, True),
        (3, "sqrt", 1, False),
    ],
)
def test_all_features_is_asked_with_one_extra_constant_feature(
    recorder, n_features, max_features, expected_fte, constant_row
):
    X = np.random.RandomState(0).rand(20, n_features)
    forest = RandomForestClassifier(n_estimators=1, max_features=max_features).fit(X, np.arange(20) % 2)
    (learn,) = recorder.named("learn_")
    assert learn["fte_per_split"] == expected_fte
    if constant_row:
        # The module's all-features mode never leaves a node where a feature
        # is constant; one more feature than asked for puts it in random mode.
        assert learn["X_"].shape == (n_features + 1, 20)
        assert np.all(learn["X_"][n_features] == 0)
        np.testing.assert_array_equal(learn["X_"][:n_features], X.T)
        assert expected_fte < learn["X_"].shape[0]
    else:
        assert learn["X_"].shape == (n_features, 20) and np.shares_memory(learn["X_"], X)
    assert forest.feature_importances_.shape == (n_features,)


@pytest.mark.parametrize(
    "n_samples, max_samples, wanted",
    [(7, 3, 3), (7, None, 7), (7, 0.05, 1), (49, 0.33, 16), (97, 0.1, 10), (97, 1.0, 97)],
)
def test_bootstrap_size_is_exact_after_the_library_truncates(recorder, n_samples, max_samples, wanted):
    # 16 / 49 * 49 truncates to 15: the proportion must be nudged up.
    X = np.random.RandomState(0).rand(n_samples, 2)
    RandomForestClassifier(n_estimators=1, max_samples=max_samples).fit(X, np.arange(n_samples) % 2)
    (learn,) = recorder.named("learn_")
    assert int(learn["sampling_prop"] * n_samples) == wanted


def test_depth_and_threads_are_passed_as_the_module_expects(recorder):
    X, y = data(np.float64)
    RandomForestClassifier(n_estimators=1, max_depth=None, n_jobs=None).fit(X, y).predict(X)
    RandomForestClassifier(n_estimators=1, max_depth=3, n_jobs=2).fit(X, y).predict(X)
    RandomForestClassifier(n_estimators=1, max_depth=2**40, n_jobs=-1).fit(X, y)
    learns = recorder.named("learn_")
    assert [call["max_depth"] for call in learns] == [0, 3, 2**31 - 1]
    assert [call["num_threads"] for call in learns[:2]] == [1, 2]
    assert 1 <= learns[2]["num_threads"] <= 32
    assert [call["num_threads"] for call in recorder.named("test_")] == [1, 2]


def test_chunks_cover_the_forest_in_multiples_of_the_thread_count():
    for n_trees in (1, 5, 9, 10, 100, 101, 1000):
        for n_threads in (1, 2, 3, 32):
            chunks = plan_chunks(n_trees, n_threads)
            assert sum(chunks) == n_trees and all(size > 0 for size in chunks)
            assert all(size % n_threads == 0 for size in chunks[:-1])
            assert len(chunks) <= 10


def test_each_chunk_is_learnt_right_after_its_own_nonzero_seed(recorder):
    X, y = data(np.float64)
    RandomForestClassifier(n_estimators=25, random_state=0).fit(X, y)
    names = [name for name, _ in recorder.calls]
    assert names[0::2] == ["set_seed"] * (len(names) // 2)
    assert all(name.startswith("learn_") for name in names[1::2])
    seeds = [arguments for name, arguments in recorder.calls if name == "set_seed"]
    assert all(1 <= seed < 2**31 for seed in seeds) and len(set(seeds)) == len(seeds)
    assert sum(call["num_trees"] for call in recorder.named("learn_")) == 25


def test_importances_are_averaged_over_chunks_by_size_skipping_chunks_with_nan(monkeypatch):
    # 25 trees on one thread: chunks of 3, ..., 3 and 1.
    chunks = plan_chunks(25, 1)
    values = [[1.0, 0.0]] * len(chunks)
    values[0] = [np.nan, np.nan]
    values[-1] = [0.0, 1.0]
    ModuleRecorder(monkeypatch, importances=values + [[np.nan, np.nan]])
    X, y = data(np.float64, n_features=2)
    forest = RandomForestClassifier(n_estimators=25, max_features=1).fit(X, y)
    kept = 25 - chunks[0]
    np.testing.assert_allclose(forest.feature_importances_, [(kept - 1) / kept, 1 / kept])
    # No tree could split: zeros.
    forest = RandomForestClassifier(n_estimators=1, max_features=1).fit(X, y)
    np.testing.assert_array_equal(forest.feature_importances_, [0.0, 0.0])


def test_missing_values_are_filled_with_training_medians_at_predict(recorder):
    X_train = np.array([[1.0, np.nan], [np.nan, 5.0], [3.0, np.nan], [2.0, 7.0], [4.0, np.nan]])
    forest = RandomForestClassifier(n_estimators=1).fit(X_train, [0, 1, 0, 1, 0])
    (learn,) = recorder.named("learn_")
    assert np.isnan(learn["X_"]).sum() == 4  # the library imputes at fit itself
    X = np.array([[np.nan, np.nan], [9.0, 9.0]], dtype=np.float32)
    forest.predict(X)
    (test,) = recorder.named("test_si")
    # Upper medians: {1, 2, 3, 4} -> 3, {5, 7} -> 7.
    np.testing.assert_array_equal(test["X_"], [[3.0, 9.0], [7.0, 9.0]])
    assert np.isnan(X[0, 0])  # the caller's matrix is left alone
