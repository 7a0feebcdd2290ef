"""Forests handed to the predictors: tree text and sequences of tree arrays."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import EMPTY_FOREST, leaf, runtime_error, stump

NOT_FLOAT = "only float32/float64 supported for numpy arrays that encode decision trees"
NOT_A_FOREST = "forest must be a string or a sequence of float32/float64 arrays"
TWO_PARENTS = "error: tree array: a node is the child of more than one node\n"


def votes(forest, X=np.zeros((1, 1))):
    """Vote fractions of the 3 classes for each instance (one zero feature by default)."""
    out = np.zeros((X.shape[1], 3))
    wrap.prob_dd(X, forest, 3, out, 1)
    return out


class NoLength:
    def __getitem__(self, i):
        return leaf(0)


class FailingItem:
    def __len__(self):
        return 3

    def __getitem__(self, i):
        if i == 1:
            raise KeyError(i)
        return leaf(1)


class TreeArray(np.ndarray):
    pass


@pytest.mark.parametrize(
    "forest, expected",
    [
        # Several trees in one text; text after a NUL is ignored.
        ("(label 1) (label 0)", [0.5, 0.5, 0]),
        ("(label 1)(label 2)\n\t(label 2)  ", [0, 1 / 3, 2 / 3]),
        ("(label 1)\0(label 0)", [0, 1, 0]),
        (b"(label 2)\0(label 0", [0, 0, 1]),
        # Sequence items that are not exactly float arrays with columns are
        # skipped, and so is an item the sequence cannot give.
        ([None, leaf(1), [1.0, 2.0], leaf(0).view(TreeArray), "(label 0)", np.zeros((5, 0)), leaf(2, np.float32)],
         [0, 0.5, 0.5]),
        (FailingItem(), [0, 1, 0]),
        # Tuples and stacked arrays are sequences as well.
        ((leaf(0), leaf(0)), [1, 0, 0]),
        (np.stack([leaf(1), leaf(2), leaf(2)]), [0, 1 / 3, 2 / 3]),
        # Rows past the fifth are ignored; labels are truncated toward zero.
        ([np.vstack([leaf(2), [[123.0]]])], [0, 0, 1]),
        ([leaf(2.9), leaf(-0.5)], [0.5, 0, 0.5]),
    ],
)
def test_accepted_forests_vote(forest, expected):
    np.testing.assert_array_equal(votes(forest), [expected])


@pytest.mark.parametrize(
    "forest, message",
    [
        ("(label 1", "unbalanced parentheses"),
        ("((label 1))", "error: unexpected token: (\n"),
        ("label 1 (label 2)", "error: expected ( to start tree.\n"),
        ("(threshold (label 1))", "error (line -1): not all tokens used\n"),
        ("(label 1e40)", "error: label out of range: 1e40\n"),
        # A str is text, never a sequence of characters.
        (" \n ", EMPTY_FOREST),
        ([None, np.zeros((5, 0))], EMPTY_FOREST),
        *(([leaf(0), np.zeros((5, 1), dtype=bad_type)], NOT_FLOAT) for bad_type in (np.float16, np.int32, np.int64)),
        ([np.zeros((4, 3))], "decision tree array must have at least 5 rows"),
        ([np.zeros((5, 1, 1))], "forest[i]: only 1D or 2D arrays supported."),
        ([np.array(1.0)], "forest[i]: only 1D or 2D arrays supported."),
        *((forest, NOT_A_FOREST) for forest in (5, None, 2.5, {"a": leaf(0)}, iter([leaf(0)]))),
        (NoLength(), "invalid sequence to represent python objects"),
    ],
)
def test_refused_forests_report_the_message(forest, message):
    assert runtime_error(votes, forest) == message


@pytest.mark.parametrize("num_threads", [1, 2])
def test_the_first_failure_in_list_order_is_reported(num_threads):
    # Tree arrays are laid out in parallel; the error is still the one met
    # first when the forest is read in order.
    def predict(forest):
        return runtime_error(wrap.test_di, np.zeros((1, 3)), forest, 3, np.zeros(3, dtype=np.int32), num_threads)

    two_parents, out_of_range = stump(0, 0.5), stump(0, 0.5)
    two_parents[:2, 0], out_of_range[:2, 0] = (1, 1), (7, 2)
    bad_label, int_array = leaf(3e10), np.zeros((5, 1), dtype=np.int32)
    assert predict([leaf(0)] * 20 + [two_parents, out_of_range] + [leaf(1)] * 20) == TWO_PARENTS
    assert predict([out_of_range, two_parents]) == "error: tree array: child index out of range\n"
    # A child index past the columns of a cut tree is out of range too.
    assert predict([stump(0, 0.5)[:, :2]]) == "error: tree array: child index out of range\n"
    assert predict([leaf(1), bad_label, int_array]) == "error: tree array: label out of range\n"
    assert predict([int_array, bad_label]) == NOT_FLOAT
    assert predict([two_parents, np.zeros((5, 1, 1))]) == TWO_PARENTS
    assert predict([np.zeros((4, 2)), two_parents]) == "decision tree array must have at least 5 rows"


def test_arrays_made_on_demand_by_the_sequence_stay_alive():
    # The sequence keeps no reference to the arrays it hands out.
    class Stumps:
        def __len__(self):
            return 60

        def __getitem__(self, i):
            if i >= 60:
                raise IndexError(i)
            return stump(0, float(i % 3), 1, 2).astype(np.float32 if i % 2 else np.float64)

    X = np.array([[0.5, 1.5, 2.5]])
    # Thresholds 0, 1, 2 (left votes 1, right votes 2): value 0.5 goes right
    # only at 0, value 2.5 everywhere.
    np.testing.assert_array_equal(votes(Stumps(), X=X), [[0, 2 / 3, 1 / 3], [0, 1 / 3, 2 / 3], [0, 0, 1]])
