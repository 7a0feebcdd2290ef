"""What the raw module refuses, with which RuntimeError text, and which
forests it accepts: bad input raises, never crashes or reads outside memory."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import EMPTY_FOREST, leaf, runtime_error, stump

X = np.array([[0.0, 1.0, 2.0, 3.0, 4.0, 5.0], [1.0, 1.0, 0.0, 0.0, 1.0, 0.0]])
Y = np.array([0, 0, 1, 1, 2, 2], dtype=np.int32)
LABEL = "invalid class label {}. Labels must be >= 0 and < num_classes; num_classes={}."
NOT_A_FOREST = "forest must be a string or a sequence of float32/float64 arrays"
TWO_PARENTS, CHILD_PAST_THE_END = stump(0, 0.5, children=(1, 1)), stump(0, 0.5, children=(7, 2))


def learn(x=X, y=Y, num_classes=3, num_threads=1, learner=wrap.learn_di_gini, num_trees=3):
    return learner(x, y, num_classes, num_trees, 1.0, 1, 0, num_threads, 0)


def predict(out=None, forest=None, num_classes=3, num_threads=1, x=X, function=wrap.test_di):
    out = np.zeros(x.shape[-1], dtype=np.int32) if out is None else out
    return function(x, [leaf(1)] if forest is None else forest, num_classes, out, num_threads)


def far(array, stride):
    """The array's first stride made one that no 32-bit view can hold; the memory is never read."""
    return np.lib.stride_tricks.as_strided(array, strides=(stride, 8))


@pytest.mark.parametrize(
    "call, message",
    [
        # Labels outside [0, num_classes); real labels by their integer part.
        (lambda: learn(num_classes=2), LABEL.format(2, 2)),
        (
            lambda: learn(y=np.array([np.nan, 0.2, 1.9, 1.0, 2.7, 0.0]), learner=wrap.learn_dd_variance),
            LABEL.format("nan", 3),
        ),
        (lambda: learn(y=Y[:5]), "the number of labels must be the same as the number of rows (instances) in the"),
        (lambda: learn(np.zeros((2, 0)), np.zeros(0, dtype=np.int32)), "error: data set is empty\n"),
        (
            lambda: learn(num_threads=33),
            "num_threads must be at most 32 (one generator of the pool per thread), not 33",
        ),
        (lambda: learn(X[0]), "X_ must be a 2-dimensional array (features x instances), not 1-dimensional"),
        (lambda: learn(X.astype(np.float32)), "X_ has 4-byte elements, too small for float64 (8 bytes)"),
        # Sizes that would exhaust memory or overflow before failing.
        (lambda: learn(num_classes=2**31 - 1), "error: data set has too many classes\n"),
        (lambda: learn(num_classes=2, num_trees=2**31 - 1), "num_trees=2147483647 cannot fit in this machine's"),
        (lambda: predict(num_classes=2**31 - 2), "num_classes must be at most 2147483645, not 2147483646"),
        (lambda: predict(num_threads=100_000), "num_threads must be at most 32"),
        (lambda: predict(forest=[np.broadcast_to(leaf(1), (5, 2**31 + 7))]), "decision tree array has more than"),
        (lambda: predict(forest=[far(stump(0, 1.0), 2**33)]), "forest[i] stride 0 is 8589934592 bytes"),
        (lambda: predict(far(np.zeros((6, 3)), 2**32), function=wrap.prob_dd), "probs_out_ stride 0 is 4294967296"),
        # Prediction: the forest, the outputs, the matrix and the counts.
        (
            lambda: predict(forest=[stump(2, 0.5)], num_classes=2),
            "error: tree node tests feature 2 but the data has 2 features\n",
        ),
        (
            lambda: predict(forest="(findex 0 threshold 2.5 left (label 0))", num_threads=2),
            "error: tree descent reached a missing child\n",
        ),
        (lambda: predict(np.zeros(5, dtype=np.int32)), "labels_out_ dimension 0 is 5, too small for 6 instances"),
        (lambda: predict(np.broadcast_to(np.int32(0), (6,))), "labels_out_ must be a writeable array"),
        (
            lambda: predict(np.zeros((6, 2)), function=wrap.prob_dd),
            "probs_out_ dimension 1 is 2, too small for 3 classes",
        ),
        (lambda: predict(np.zeros(18), function=wrap.prob_dd), "probs_out_ must be a 2-dimensional array"),
        (lambda: predict(num_classes=-1), "num_classes must be >= 0, not -1"),
        (lambda: predict(forest=[]), EMPTY_FOREST),
        # Forests: text, and sequences of tree arrays.
        (lambda: predict(forest="(threshold (label 1))"), "error (line -1): not all tokens used\n"),
        (lambda: predict(forest="(" + "left (" * 200_000), "unbalanced parentheses"),
        (lambda: predict(forest=" \n "), EMPTY_FOREST),  # a str is text, never a sequence
        (lambda: predict(forest=[None, np.zeros((5, 0))]), EMPTY_FOREST),
        (
            lambda: predict(forest=[leaf(0), np.zeros((5, 1), dtype=np.int32)]),
            "only float32/float64 supported for numpy",
        ),
        (lambda: predict(forest=[np.zeros((5, 1, 1))]), "forest[i]: only 1D or 2D arrays supported."),
        (
            lambda: predict(forest=[np.array([[np.inf], [-1.0], [0], [0.5], [1]])]),
            "error: tree array: child index out of",
        ),
        *((lambda forest=forest: predict(forest=forest), NOT_A_FOREST) for forest in (5, 2.5, iter([leaf(0)]))),
        # Tree arrays are laid out in parallel; the error is still the first met in list order.
        (
            lambda: predict(forest=[leaf(0)] * 20 + [TWO_PARENTS, CHILD_PAST_THE_END] + [leaf(1)] * 20, num_threads=2),
            "error: tree array: a node is the child of more than one node\n",
        ),
        (lambda: predict(forest=[leaf(1), leaf(3e10), np.zeros((5, 1), np.int32)]), "error: tree array: label out of"),
        (lambda: predict(forest=[np.zeros((4, 2)), TWO_PARENTS]), "decision tree array must have at least 5 rows"),
    ],
)
def test_refusals_carry_the_exact_message(call, message):
    assert runtime_error(call).startswith(message)


class Stumps:
    """A sequence that keeps no reference to the arrays it hands out."""

    def __len__(self):
        return 60

    def __getitem__(self, i):
        return stump(0, float(i % 3), 1, 2).astype(np.float32 if i % 2 else np.float64)


@pytest.mark.parametrize(
    "forest, votes",
    [
        # Several trees in one text; text after a NUL is ignored.
        ("(label 1)(label 2)\n\t(label 2)  ", [0, 1 / 3, 2 / 3]),
        (b"(label 2)\0(label 0", [0, 0, 1]),
        # Items that are not float arrays with columns are skipped; rows past the
        # fifth are ignored, labels truncated toward zero, and votes outside the
        # classes count in the total only.
        ([None, leaf(1), [1.0, 2.0], "(label 0)", np.zeros((5, 0)), leaf(2, np.float32)], [0, 0.5, 0.5]),
        (np.stack([leaf(1), leaf(2), leaf(2)]), [0, 1 / 3, 2 / 3]),
        ([np.vstack([leaf(2.9), [[123.0]]]), leaf(-0.5), leaf(7)], [1 / 3, 0, 1 / 3]),
        # NaN and negative children are absent: the root is a leaf.
        ([np.array([[np.nan], [-np.inf], [0], [0.5], [1]])], [0, 1, 0]),
        (Stumps(), [0, 2 / 3, 1 / 3]),  # value 0 goes right of threshold 0 only
    ],
)
def test_accepted_forests_vote(forest, votes):
    out = np.zeros((1, 3))
    wrap.prob_dd(np.zeros((1, 1)), forest, 3, out, 1)
    np.testing.assert_array_equal(out, [votes])
