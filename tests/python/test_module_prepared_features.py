"""Matrices that carry their preparation between learning calls: reuse must
never change a forest, and only a read-only matrix that asks for it keeps one."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap


class Keeping(np.ndarray):
    _velmot_prepared = None


def keeping(matrix):
    view = matrix.view(Keeping)
    view.flags.writeable = False
    return view


def data(n=400, nf=5):
    rng = np.random.default_rng(7)
    X = rng.normal(size=(nf, n))
    X[1, ::9] = np.nan  # imputed once, in the first call
    y = (X[0] + X[2] > 0).astype(np.int32) + (X[3] > 1).astype(np.int32)
    return X, y


def learn(learner, X, y, n_trees, seed, num_classes=3):
    wrap.set_seed(seed)
    return getattr(wrap, learner)(X, y, num_classes, n_trees, 1.0, 2, 0, 2, 1)


def assert_same(a, b):
    for x, z in zip(a[0], b[0], strict=True):
        np.testing.assert_array_equal(x, z)
    np.testing.assert_array_equal(a[1], b[1])


def test_calls_on_a_keeping_matrix_learn_what_fresh_calls_learn():
    X, y = data()
    kept = keeping(X)
    other_labels = (y + 1) % 3
    # A call without trees prepares but does not rank; later calls change
    # labels and learner types on the same prepared features.
    steps = [
        ("learn_di_gini", y, 0, 1),
        ("learn_di_gini", y, 4, 2),
        ("learn_di_infogain", other_labels, 3, 3),
        ("learn_di_gini", y, 4, 2),
    ]
    for learner, labels, n_trees, seed in steps:
        assert_same(learn(learner, kept, labels, n_trees, seed), learn(learner, X, labels, n_trees, seed))
    assert kept._velmot_prepared is not None
    # Real labels prepare a matrix of their own type over the same memory.
    real = y.astype(np.float64)
    assert_same(learn("learn_dd_variance", kept, real, 3, 4), learn("learn_dd_variance", X, real, 3, 4))
    assert_same(learn("learn_di_gini", kept, y, 4, 2), learn("learn_di_gini", X, y, 4, 2))


def test_a_preparation_is_used_only_on_the_layout_it_was_made_for():
    X, y = data()
    kept = keeping(X)
    learn("learn_di_gini", kept, y, 2, 1)
    # The same memory seen through other strides and shapes.
    for view in (kept[:, ::2], kept[:3], kept[:, 1:]):
        view._velmot_prepared = kept._velmot_prepared
        assert_same(learn("learn_di_gini", view, y[: view.shape[1]], 3, 5),
                    learn("learn_di_gini", np.array(view), y[: view.shape[1]], 3, 5))


def test_only_read_only_matrices_that_ask_keep_a_preparation():
    X, y = data()
    writeable = X.view(Keeping)
    learn("learn_di_gini", writeable, y, 2, 1)
    assert writeable._velmot_prepared is None
    plain = X.copy()
    plain.flags.writeable = False
    learn("learn_di_gini", plain, y, 2, 1)
    assert not hasattr(plain, "_velmot_prepared")


def test_a_failed_call_keeps_nothing_and_the_next_one_prepares():
    X, y = data()
    kept = keeping(X)
    bad = y.copy()
    bad[0] = 3
    with pytest.raises(RuntimeError, match="invalid class label 3"):
        learn("learn_di_gini", kept, bad, 2, 1)
    assert kept._velmot_prepared is None
    assert_same(learn("learn_di_gini", kept, y, 2, 1), learn("learn_di_gini", X, y, 2, 1))
    # Reused features still have every call's labels checked.
    with pytest.raises(RuntimeError, match="invalid class label 3"):
        learn("learn_di_gini", kept, bad, 2, 1)


def _resident_mib():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * 4 / 1024


def test_resident_memory_stays_flat_as_prepared_matrices_come_and_go():
    X, y = data(n=20000, nf=20)
    learn("learn_di_gini", keeping(X), y, 2, 1)
    before = _resident_mib()
    for _ in range(30):
        learn("learn_di_gini", keeping(X), y, 2, 1)
    # Each preparation holds about 8 MiB: kept ones would add 240.
    assert _resident_mib() - before < 40
