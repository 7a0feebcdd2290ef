"""Forests handed to the predictors: tree text and sequences of tree arrays."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap

EXAMPLE_TREE = """(threshold 0.5 findex 3 label 0
  left (label 0)
  right (threshold 2.25 findex 1 label 1
    left (label 1)
    right (label 2)))"""


def leaf(label, dtype=np.float64):
    return np.array([[-1], [-1], [-1], [np.nan], [label]], dtype=dtype)


def stump(feature, threshold, left_label, right_label, dtype=np.float64):
    return np.array(
        [[1, -1, -1], [2, -1, -1], [feature, -1, -1], [threshold, 0, 0], [-2, left_label, right_label]], dtype=dtype
    )


def votes(forest, num_classes=3, X=None):
    """Vote fractions of each class for each instance (one zero feature by default)."""
    X = np.zeros((1, 1)) if X is None else X
    out = np.zeros((X.shape[1], num_classes))
    wrap.prob_dd(X, forest, num_classes, out, 1)
    return out


def classes(forest, X, num_classes=3):
    out = np.full(X.shape[1], -7, dtype=np.int32)
    wrap.test_di(X, forest, num_classes, out, 1)
    return out.tolist()


def runtime_error(call, *args):
    with pytest.raises(RuntimeError) as error:
        call(*args)
    return str(error.value)


def test_the_example_tree_predicts_its_classes():
    # Instances as columns: feature 3 decides first, then feature 1.
    X = np.zeros((4, 4))
    X[3] = [0.2, 0.5, 0.9, 0.7]
    X[1] = [9.0, 2.0, 2.25, 1.0]
    assert classes(EXAMPLE_TREE, X) == [0, 1, 2, 1]
    assert classes(EXAMPLE_TREE.encode(), X) == [0, 1, 2, 1]


def test_several_trees_in_one_text_and_text_after_a_nul_ignored():
    np.testing.assert_array_equal(votes("(label 1) (label 0)"), [[0.5, 0.5, 0]])
    np.testing.assert_array_equal(votes("(label 1)(label 2)\n\t(label 2)  "), [[0, 1 / 3, 2 / 3]])
    np.testing.assert_array_equal(votes("(label 1)\0(label 0)"), [[0, 1, 0]])
    np.testing.assert_array_equal(votes(b"(label 2)\0(label 0"), [[0, 0, 1]])
    # A str is text, never a sequence of characters.
    assert runtime_error(votes, " \n ") == "error: forest is empty: cannot predict\n"


@pytest.mark.parametrize(
    "text, message",
    [
        ("(label 1", "unbalanced parentheses"),
        ("((label 1))", "error: unexpected token: (\n"),
        ("label 1 (label 2)", "error: expected ( to start tree.\n"),
        ("(threshold (label 1))", "error (line -1): not all tokens used\n"),
        ("(label 1e40)", "error: label out of range: 1e40\n"),
    ],
)
def test_malformed_text_reports_the_readers_message(text, message):
    assert runtime_error(votes, text) == message


def test_sequence_items_that_are_not_exactly_arrays_are_skipped():
    class TreeArray(np.ndarray):
        pass

    subclass = leaf(0).view(TreeArray)
    forest = [None, leaf(1), [1.0, 2.0], subclass, "(label 0)", np.zeros((5, 0)), leaf(2, np.float32)]
    np.testing.assert_array_equal(votes(forest), [[0, 0.5, 0.5]])
    # Tuples and stacked arrays are sequences as well.
    np.testing.assert_array_equal(votes((leaf(0), leaf(0))), [[1, 0, 0]])
    np.testing.assert_array_equal(votes(np.stack([leaf(1), leaf(2), leaf(2)])), [[0, 1 / 3, 2 / 3]])
    assert runtime_error(votes, []) == "error: forest is empty: cannot predict\n"
    assert runtime_error(votes, [None, np.zeros((5, 0))]) == "error: forest is empty: cannot predict\n"


def test_array_shapes_and_element_types():
    # Rows past the fifth are ignored.
    six_rows = np.vstack([leaf(2), [[123.0]]])
    np.testing.assert_array_equal(votes([six_rows]), [[0, 0, 1]])
    # Labels are truncated toward zero.
    np.testing.assert_array_equal(votes([leaf(2.9), leaf(-0.5)]), [[0.5, 0, 0.5]])
    for bad_type in (np.float16, np.int32, np.int64):
        assert (
            runtime_error(votes, [leaf(0), np.zeros((5, 1), dtype=bad_type)])
            == "only float32/float64 supported for numpy arrays that encode decision trees"
        )
    assert runtime_error(votes, [np.zeros((4, 3))]) == "decision tree array must have at least 5 rows"
    assert runtime_error(votes, [np.zeros((5, 1, 1))]) == "forest[i]: only 1D or 2D arrays supported."
    assert runtime_error(votes, [np.array(1.0)]) == "forest[i]: only 1D or 2D arrays supported."


def test_a_forest_must_be_text_or_a_sequence():
    message = "forest must be a string or a sequence of float32/float64 arrays"
    for forest in (5, None, 2.5, {"a": leaf(0)}, iter([leaf(0)])):
        assert runtime_error(votes, forest) == message

    class NoLength:
        def __getitem__(self, i):
            return leaf(0)

    assert runtime_error(votes, NoLength()) == "invalid sequence to represent python objects"

    class Failing:
        def __len__(self):
            return 3

        def __getitem__(self, i):
            if i == 1:
                raise KeyError(i)
            return leaf(1)

    # An item the sequence cannot give is skipped like any other non-array.
    np.testing.assert_array_equal(votes(Failing()), [[0, 1, 0]])


def test_encodings_that_would_break_descent_are_refused():
    assert runtime_error(votes, [stump(0, 0.5, 0, 1)[:, :2]]) == "error: tree array: child index out of range\n"
    two_parents = stump(0, 0.5, 0, 1)
    two_parents[1, 0] = 1
    assert runtime_error(votes, [two_parents]) == "error: tree array: a node is the child of more than one node\n"


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
    # The text form of the first tree predicts the same.

    def to_text(tree, column=0):
        left, right, feature, threshold, label = tree[:, column]
        if left < 0 and right < 0:
            return f"(label {int(label)})"
        return (
            f"(threshold {threshold!r} findex {int(feature)} label {int(label)} "
            f"left {to_text(tree, int(left))} right {to_text(tree, int(right))})"
        )

    text = " ".join(to_text(t) for t in trees)
    assert classes(text, X) == classes(trees, X)


@pytest.mark.parametrize("num_threads", [1, 2])
def test_the_first_failure_in_list_order_is_reported(num_threads):
    # Tree arrays are laid out in parallel; the error is still the one met
    # first when the forest is read in order.
    def predict(forest):
        with pytest.raises(RuntimeError) as error:
            wrap.test_di(np.zeros((1, 3)), forest, 3, np.zeros(3, dtype=np.int32), num_threads)
        return str(error.value)

    two_parents = stump(0, 0.5, 0, 1)
    two_parents[1, 0] = 1
    out_of_range = stump(0, 0.5, 0, 1)
    out_of_range[0, 0] = 7
    bad_label = leaf(3e10)
    int_array = np.zeros((5, 1), dtype=np.int32)
    parents_message = "error: tree array: a node is the child of more than one node\n"
    assert predict([leaf(0)] * 20 + [two_parents, out_of_range] + [leaf(1)] * 20) == parents_message
    assert predict([out_of_range, two_parents]) == "error: tree array: child index out of range\n"
    assert predict([leaf(1), bad_label, int_array]) == "error: tree array: label out of range\n"
    assert predict([int_array, bad_label]) == (
        "only float32/float64 supported for numpy arrays that encode decision trees"
    )
    assert predict([two_parents, np.zeros((5, 1, 1))]) == parents_message
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
