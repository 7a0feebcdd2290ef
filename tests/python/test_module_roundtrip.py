"""Learning and prediction through the raw module: every function, its
thread count, strided outputs, and matrices that keep their preparation."""

import ctypes

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import FEATURE_TYPES, LABEL_TYPES, LEARNERS

RNG = np.random.default_rng(0)
X = RNG.integers(0, 200, size=(3, 80))  # features x instances; the third is noise
Y = (X[0] + X[1] > 200).astype(np.int32)


def test_the_method_table_has_the_34_functions_in_order():
    expected = LEARNERS + [f"test_{f}i" for f in "idsb"] + ["init_pool", "set_seed"]
    expected[-2:-2] = [f"prob_{f}{t}" for f, t in ("dd", "ds", "sd", "ss", "id", "is", "bd", "bs")]
    assert [name for name in vars(wrap) if callable(getattr(wrap, name))] == expected


@pytest.mark.parametrize("learner", LEARNERS)
def test_every_learner_round_trips_through_test_and_prob(learner):
    f, letter = learner[6], learner[7]
    x = X.astype(FEATURE_TYPES[f])
    wrap.set_seed(17)
    labels = (Y + 0.25 * (letter != "i")).astype(LABEL_TYPES[letter])  # real labels count under their integer part
    trees, importances = getattr(wrap, learner)(x, labels, 2, 15, 1.0, 2, 0, 2, 1)
    assert importances[2] < min(importances[:2])
    # Outputs through strides: every second label, probabilities transposed.
    predicted = np.full(2 * len(Y), -7, dtype=np.int32)
    assert getattr(wrap, f"test_{f}i")(x, trees, 2, predicted[::2], 2) == 0.0
    assert (predicted[::2] == Y).mean() > 0.9 and (predicted[1::2] == -7).all()
    for out_type in "ds":
        probabilities = np.full((2, len(Y)), -1.0, dtype=FEATURE_TYPES[out_type]).T
        getattr(wrap, f"prob_{f}{out_type}")(x, trees, 2, probabilities, 2)
        np.testing.assert_allclose(probabilities.sum(axis=1), 1.0, rtol=1e-6)
        # The larger fraction is the predicted class (ties go to class 0).
        np.testing.assert_array_equal(probabilities[:, 1] > probabilities[:, 0], predicted[::2])


def test_the_thread_count_stays_in_force_after_a_call():
    gomp = ctypes.CDLL("libgomp.so.1")
    trees, _ = wrap.learn_di_gini(X.astype(np.float64), Y, 2, 2, 1.0, 2, 0, 4, 0)
    assert gomp.omp_get_max_threads() == 4
    wrap.test_di(X.astype(np.float64), trees, 2, np.zeros(len(Y), dtype=np.int32), 3)
    assert gomp.omp_get_max_threads() == 3


class Keeping(np.ndarray):
    """A matrix that asks to keep its preparation between learning calls."""

    _velmot_prepared = None


def test_a_kept_preparation_never_changes_a_forest():
    x = np.where(RNG.random(X.shape) < 0.1, np.nan, X)  # imputed once, in the first call
    kept = x.view(Keeping)
    kept.flags.writeable = False

    def same(learner, matrix, labels, n_trees=3):
        results = []
        for features in (matrix, np.array(matrix)):
            wrap.set_seed(5)
            trees, importances = getattr(wrap, learner)(features, labels, 3, n_trees, 1.0, 2, 0, 2, 1)
            results.append([*trees, importances])
        return all(np.array_equal(a, b, equal_nan=True) for a, b in zip(*results, strict=True))

    # A call without trees prepares; later calls change labels and learners.
    for learner, labels, n_trees in (
        ("learn_di_gini", Y, 0),
        ("learn_di_gini", Y, 4),
        ("learn_di_infogain", (Y + 1) % 3, 3),
        ("learn_dd_variance", Y + 0.5, 3),
    ):
        assert same(learner, kept, labels.astype(LABEL_TYPES[learner[7]]), n_trees)
    assert kept._velmot_prepared is not None
    # Only on the layout it was made for; a failed call keeps nothing.
    for view in (kept[:, ::2], kept[:2], kept[:, 1:]):
        view._velmot_prepared = kept._velmot_prepared
        assert same("learn_di_gini", view, Y[: view.shape[1]])
    fresh = x.view(Keeping)
    fresh.flags.writeable = False
    with pytest.raises(RuntimeError, match="invalid class label 3"):
        wrap.learn_di_gini(fresh, Y * 3, 3, 2, 1.0, 2, 0, 1, 0)
    assert fresh._velmot_prepared is None
    writeable = x.view(Keeping)
    wrap.learn_di_gini(writeable, Y, 3, 2, 1.0, 2, 0, 1, 0)
    assert writeable._velmot_prepared is None
