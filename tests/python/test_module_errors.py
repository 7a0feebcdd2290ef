"""What the raw module refuses, and with which RuntimeError text."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import EMPTY_FOREST, leaf, runtime_error, stump

X = np.array([[0.0, 1.0, 2.0, 3.0, 4.0, 5.0], [1.0, 1.0, 0.0, 0.0, 1.0, 0.0]])
Y = np.array([0, 0, 1, 1, 2, 2], dtype=np.int32)
REAL = np.array([0.5, 0.2, 1.9, 1.0, 2.7, 0.0])
LABEL = "invalid class label {}. Labels must be >= 0 and < num_classes; num_classes={}."
LABEL_COUNT = "the number of labels must be the same as the number of rows (instances) in the instance matrix"
X_FLOAT32 = "X_ has 4-byte elements, too small for float64 (8 bytes): pass an array of float64"


def learn(x=X, y=Y, num_classes=3, num_threads=1, learner=wrap.learn_di_gini):
    return learner(x, y, num_classes, 3, 1.0, 1, 0, num_threads, 0)


def predict(out=None, forest=None, num_classes=3, num_threads=1, x=X, function=wrap.test_di):
    out = np.zeros(6, dtype=np.int32) if out is None else out
    return function(x, [leaf(1)] if forest is None else forest, num_classes, out, num_threads)


def probabilities(out):
    return predict(out, function=wrap.prob_dd)


def read_only(array):
    array.flags.writeable = False
    return array


@pytest.mark.parametrize(
    "call, message",
    [
        # Labels outside [0, num_classes); real labels by their integer part,
        # NaN and values no int holds by their printed value.
        (lambda: learn(num_classes=2), LABEL.format(2, 2)),
        (lambda: learn(y=np.array([-1, 0, 1, 1, 2, 2], dtype=np.int32)), LABEL.format(-1, 3)),
        (lambda: learn(y=REAL, num_classes=2, learner=wrap.learn_dd_variance), LABEL.format(2, 2)),
        (lambda: learn(y=np.array([np.nan, 0.2, 1.9, 1.0, 2.7, 0.0]), learner=wrap.learn_dd_variance),
         LABEL.format("nan", 3)),
        (lambda: learn(y=np.array([0, 0, 1, 1, 2, 1e10], np.float32), learner=wrap.learn_ds_variance),
         LABEL.format("1e+10", 3)),
        # An instance-major matrix: its 6 rows are taken as features.
        (lambda: learn(np.ascontiguousarray(X.T)), LABEL_COUNT),
        (lambda: learn(y=Y[:5]), LABEL_COUNT),
        (lambda: learn(np.zeros((2, 0)), np.zeros(0, dtype=np.int32)), "error: data set is empty\n"),
        (lambda: learn(num_threads=0), "num_threads must be at least 1, not 0"),
        (lambda: learn(num_threads=-3), "num_threads must be at least 1, not -3"),
        (lambda: learn(num_threads=33),
         "num_threads must be at most 32 (one generator of the pool per thread), not 33"),
        (lambda: learn(X[0]), "X_ must be a 2-dimensional array (features x instances), not 1-dimensional"),
        (lambda: learn(y=Y.reshape(6, 1)),
         "Y_ must be a 1-dimensional array (one label per instance), not 2-dimensional"),
        (lambda: learn(X.astype(np.float32)), X_FLOAT32),
        (lambda: learn(y=Y.astype(np.int16)),
         "Y_ has 2-byte elements, too small for int32 (4 bytes): pass an array of int32"),
        # Prediction: the forest, the outputs, the matrix and the counts.
        (lambda: predict(forest=[stump(2, 0.5)], num_classes=2),
         "error: tree node tests feature 2 but the data has 2 features\n"),
        (lambda: predict(forest="(findex -1 left (label 0) right (label 1))", num_classes=2),
         "error: tree node tests feature -1 but the data has 2 features\n"),
        (lambda: predict(forest="(findex 0 threshold 2.5 left (label 0))", num_classes=2, num_threads=2),
         "error: tree descent reached a missing child\n"),
        (lambda: predict(np.zeros(5, dtype=np.int32)), "labels_out_ dimension 0 is 5, too small for 6 instances"),
        (lambda: predict(np.zeros(6, dtype=np.int16)),
         "labels_out_ has 2-byte elements, too small for int32 (4 bytes): pass an array of int32"),
        (lambda: predict(np.array(0, dtype=np.int32)), "labels_out_ must have at least 1 dimension, not 0"),
        (lambda: predict(read_only(np.zeros(6, dtype=np.int32))), "labels_out_ must be a writeable array"),
        (lambda: probabilities(np.zeros((6, 2))), "probs_out_ dimension 1 is 2, too small for 3 classes"),
        (lambda: probabilities(np.zeros((5, 3))), "probs_out_ dimension 0 is 5, too small for 6 instances"),
        (lambda: probabilities(np.zeros(18)),
         "probs_out_ must be a 2-dimensional array (instances x classes), not 1-dimensional"),
        (lambda: probabilities(np.zeros((6, 3), np.float32)),
         "probs_out_ has 4-byte elements, too small for float64 (8 bytes): pass an array of float64"),
        (lambda: predict(x=X.astype(np.float32)), X_FLOAT32),
        (lambda: predict(x=X[None]), "X_ must be a 2-dimensional array (features x instances), not 3-dimensional"),
        (lambda: predict(num_classes=-1), "num_classes must be >= 0, not -1"),
        (lambda: predict(num_threads=0), "num_threads must be at least 1, not 0"),
    ],
)
def test_refusals_carry_the_exact_message(call, message):
    assert runtime_error(call) == message


@pytest.mark.parametrize(
    "call",
    [
        lambda: wrap.learn_di_gini(X, Y, num_classes=3, num_trees=3, sampling_prop=1.0, fte_per_split=1,
                                   max_depth=0, num_threads=1, compute_feature_importances=0),
        lambda: wrap.learn_di_gini(X.tolist(), Y, 3, 3, 1.0, 1, 0, 1, 0),
        lambda: wrap.learn_di_gini(X, Y, 3, 3, 1.0, 1, 0, 1),
        lambda: wrap.test_di(X, [leaf(1)], 3, labels_out_=np.zeros(6, dtype=np.int32), num_threads=1),
        lambda: wrap.prob_dd(X, [leaf(1)], 3, [[0.0] * 3] * 6, 1),
    ],
)
def test_arguments_are_positional_and_typed(call):
    with pytest.raises(TypeError):
        call()


def test_what_learning_accepts():
    wrap.set_seed(1)
    assert len(learn(num_threads=32)[0]) == 3
    # Real labels count under their integer part: -0.5 truncates to 0.
    for real in (REAL, np.array([-0.5, 0.2, 1.9, 1.0, 2.7, 0.0])):
        assert len(learn(y=real, learner=wrap.learn_dd_variance)[0]) == 3


def test_an_empty_forest_leaves_the_output_untouched():
    out, probs = np.full(6, -7, dtype=np.int32), np.full((6, 3), -1.0)
    assert runtime_error(wrap.test_di, X, [], 3, out, 1) == EMPTY_FOREST
    assert runtime_error(wrap.prob_dd, X, [], 3, probs, 1) == EMPTY_FOREST
    assert (out == -7).all() and (probs == -1).all()
    # Without instances nothing is predicted, so nothing fails.
    assert wrap.test_di(np.zeros((2, 0)), [], 3, out, 1) == 0.0


def test_what_prediction_accepts():
    out = np.zeros(6, dtype=np.int32)
    # Votes outside the classes are ignored.
    wrap.test_di(X, [leaf(7), leaf(-5)], 2, out, 1)
    assert (out == -2).all()
    wrap.test_di(X, [leaf(7), leaf(-1)], 2, out, 1)
    assert (out == -1).all()
    probs = np.zeros((6, 2))
    wrap.prob_dd(X, [leaf(7), leaf(1)], 2, probs, 1)
    np.testing.assert_array_equal(probs, [[0, 0.5]] * 6)
    # Leaves may carry any feature index; values below 2.5 never go right.
    wrap.test_di(X, [np.array([[-1.0], [-1.0], [99.0], [0.0], [1.0]])], 2, out, 1)
    wrap.test_di(X[:, :2], "(findex 0 threshold 2.5 left (label 0))", 2, out, 2)
    # Larger outputs are fine: only the leading part is written.
    wide = np.full((7, 4), -1.0, dtype=np.float32)
    wrap.prob_ds(X, [leaf(1)], 3, wide, 1)
    np.testing.assert_array_equal(wide[:6, :3], [[0, 1, 0]] * 6)
    assert (wide[6] == -1).all() and (wide[:, 3] == -1).all()
