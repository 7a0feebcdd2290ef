"""Forests handed to the predictors: tree text and sequences of tree arrays."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import leaf, runtime_error, stump

EXAMPLE_TREE = """(threshold 0.5 findex 3 label 0
  left (label 0)
  right (threshold 2.25 findex 1 label 1
    left (label 1)
    right (label 2)))"""
EMPTY_FOREST = "error: forest is empty: cannot predict\n"
NOT_FLOAT = "only float32/float64 supported for numpy arrays that encode decision trees"
NOT_A_FOREST = "forest must be a string or a sequence of float32/float64 arrays"
TWO_PARENTS = "error: tree array: a node is the child of more than one node\n"


def votes(forest, X=np.zeros((1, 1))):
    """Vote fractions of the 3 classes for each instance (one zero feature by default)."""
    out = np.zeros((X.shape[1], 3))
    wrap.prob_dd(X, forest, 3, out, 1)
    return out


def classes(forest, X):
    out = np.full(X.shape[1], -7, dtype=np.int32)
    wrap.test_di(X, forest, 3, out, 1)
    return out.tolist()


def split_with_children(left, right):
    """stump(0, 0.5) with other child indices at its root."""
    tree = stump(0, 0.5)
    tree[:2, 0] = left, right
    return tree


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


def test_the_example_tree_predicts_its_classes():
    # Instances as columns: feature 3 decides first, then feature 1.
    X = np.zeros((4, 4))
    X[3] = [0.2, 0.5, 0.9, 0.7]
    X[1] = [9.0, 2.0, 2.25, 1.0]
    assert classes(EXAMPLE_TREE, X) == [0, 1, 2, 1]
    assert classes(EXAMPLE_TREE.encode(), X) == [0, 1, 2, 1]


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


def test_exported_trees_rebuild_to_the_same_predictions():
    rng = np.random.default_rng(4)
    X = rng.normal(size=(3, 50))
    y = (X[0] > 0).astype(np.int32) + (X[1] > 0.5)
    wrap.set_seed(8)
    trees, _ = wrap.learn_di_gini(X, y, 3, 5, 1.0, 2, 0, 1, 0)
    for tree in trees:
        # Breadth-first with the root in column 0: children come after parents.
        assert (np.sort(tree[:2][tree[:2] >= 0]) == np.arange(1, tree.shape[1])).all()
    as_float32 = [t.astype(np.float32) for t in trees[:2]] + trees[2:]
    assert classes(as_float32, X) == classes(trees, X)

    def to_text(tree, column=0):
        left, right, feature, threshold, label = tree[:, column]
        if left < 0 and right < 0:
            return f"(label {int(label)})"
        return (
            f"(threshold {threshold!r} findex {int(feature)} label {int(label)} "
            f"left {to_text(tree, int(left))} right {to_text(tree, int(right))})"
        )

    # The text form predicts the same.
    assert classes(" ".join(to_text(t) for t in trees), X) == classes(trees, X)


@pytest.mark.parametrize("num_threads", [1, 2])
def test_the_first_failure_in_list_order_is_reported(num_threads):
    # Tree arrays are laid out in parallel; the error is still the one met
    # first when the forest is read in order.
    def predict(forest):
        return runtime_error(wrap.test_di, np.zeros((1, 3)), forest, 3, np.zeros(3, dtype=np.int32), num_threads)

    two_parents, out_of_range = split_with_children(1, 1), split_with_children(7, 2)
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
