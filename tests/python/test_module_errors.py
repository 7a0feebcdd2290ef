"""What the raw module refuses, and with which RuntimeError text."""

import numpy as np
import pytest

import PyVelmot_wrap as wrap

LABEL_COUNT_MESSAGE = "the number of labels must be the same as the number of rows (instances) in the instance matrix"


def leaf(label):
    return np.array([[-1.0], [-1.0], [-1.0], [np.nan], [label]])


def node(left, right, feature, threshold):
    """A split column; leaves follow in columns 1 and 2 when given."""
    return np.array(
        [[left, -1, -1], [right, -1, -1], [feature, -1, -1], [threshold, 0, 0], [-2, 0, 1]], dtype=np.float64
    )


def runtime_error(call, *args):
    with pytest.raises(RuntimeError) as error:
        call(*args)
    return str(error.value)


@pytest.fixture
def data():
    X = np.array([[0.0, 1.0, 2.0, 3.0, 4.0, 5.0], [1.0, 1.0, 0.0, 0.0, 1.0, 0.0]])
    y = np.array([0, 0, 1, 1, 2, 2], dtype=np.int32)
    return X, y


def learn(X, y, num_classes=3, num_threads=1, learner=wrap.learn_di_gini):
    return learner(X, y, num_classes, 3, 1.0, 1, 0, num_threads, 0)


class TestLearning:
    def test_labels_outside_the_classes(self, data):
        X, y = data
        message = "invalid class label {}. Labels must be >= 0 and < num_classes; num_classes={}."
        assert runtime_error(learn, X, y, 2) == message.format(2, 2)
        y[0] = -1
        assert runtime_error(learn, X, y) == message.format(-1, 3)
        real = np.array([0.5, 0.2, 1.9, 1.0, 2.7, 0.0])
        assert runtime_error(learn, X, real, 2, 1, wrap.learn_dd_variance) == message.format(2, 2)
        trees, _ = learn(X, real, 3, 1, wrap.learn_dd_variance)
        assert len(trees) == 3
        # -0.5 truncates to 0 and passes; NaN has no integer part.
        real[0] = -0.5
        learn(X, real, 3, 1, wrap.learn_dd_variance)
        real[0] = np.nan
        assert runtime_error(learn, X, real, 3, 1, wrap.learn_dd_variance) == message.format("nan", 3)
        single = np.array([0, 0, 1, 1, 2, 1e10], dtype=np.float32)
        assert runtime_error(learn, X, single, 3, 1, wrap.learn_ds_variance) == message.format("1e+10", 3)

    def test_label_count_must_match_the_instances(self, data):
        X, y = data
        # An instance-major matrix: its 6 rows are taken as features.
        assert runtime_error(learn, np.ascontiguousarray(X.T), y) == LABEL_COUNT_MESSAGE
        assert runtime_error(learn, X, y[:5]) == LABEL_COUNT_MESSAGE

    def test_an_empty_data_set(self):
        assert runtime_error(learn, np.zeros((2, 0)), np.zeros(0, dtype=np.int32)) == "error: data set is empty\n"

    def test_thread_counts_the_pool_cannot_serve(self, data):
        X, y = data
        wrap.set_seed(1)
        for bad in (0, -3):
            assert runtime_error(learn, X, y, 3, bad) == f"num_threads must be at least 1, not {bad}"
        assert runtime_error(learn, X, y, 3, 33) == (
            "num_threads must be at most 32 (one generator of the pool per thread), not 33"
        )
        assert len(learn(X, y, 3, 32)[0]) == 3

    def test_dimensions_and_element_sizes(self, data):
        X, y = data
        assert runtime_error(learn, X[0], y) == (
            "X_ must be a 2-dimensional array (features x instances), not 1-dimensional"
        )
        assert runtime_error(learn, X, y.reshape(6, 1)) == (
            "Y_ must be a 1-dimensional array (one label per instance), not 2-dimensional"
        )
        assert runtime_error(learn, X.astype(np.float32), y) == (
            "X_ has 4-byte elements, too small for float64 (8 bytes): pass an array of float64"
        )
        assert "Y_ has 2-byte elements, too small for int32" in runtime_error(learn, X, y.astype(np.int16))

    def test_arguments_are_positional_and_typed(self, data):
        X, y = data
        with pytest.raises(TypeError):
            wrap.learn_di_gini(X, y, num_classes=3, num_trees=3, sampling_prop=1.0, fte_per_split=1,
                               max_depth=0, num_threads=1, compute_feature_importances=0)
        with pytest.raises(TypeError):
            wrap.learn_di_gini(X.tolist(), y, 3, 3, 1.0, 1, 0, 1, 0)
        with pytest.raises(TypeError):
            wrap.learn_di_gini(X, y, 3, 3, 1.0, 1, 0, 1)


class TestPrediction:
    def test_an_empty_forest_leaves_the_output_untouched(self, data):
        X, _ = data
        out = np.full(6, -7, dtype=np.int32)
        assert runtime_error(wrap.test_di, X, [], 3, out, 1) == "error: forest is empty: cannot predict\n"
        assert (out == -7).all()
        probabilities = np.full((6, 3), -1.0)
        assert runtime_error(wrap.prob_dd, X, [], 3, probabilities, 1) == "error: forest is empty: cannot predict\n"
        assert (probabilities == -1).all()
        # Without instances nothing is predicted, so nothing fails.
        assert wrap.test_di(np.zeros((2, 0)), [], 3, out, 1) == 0.0

    def test_votes_outside_the_classes_are_ignored(self, data):
        X, _ = data
        out = np.zeros(6, dtype=np.int32)
        wrap.test_di(X, [leaf(7), leaf(-5)], 2, out, 1)
        assert (out == -2).all()
        wrap.test_di(X, [leaf(7), leaf(-1)], 2, out, 1)
        assert (out == -1).all()
        probabilities = np.zeros((6, 2))
        wrap.prob_dd(X, [leaf(7), leaf(1)], 2, probabilities, 1)
        np.testing.assert_array_equal(probabilities, [[0, 0.5]] * 6)

    def test_split_features_must_exist_in_the_matrix(self, data):
        X, _ = data
        out = np.zeros(6, dtype=np.int32)
        assert runtime_error(wrap.test_di, X, [node(1, 2, 2, 0.5)], 2, out, 1) == (
            "error: tree node tests feature 2 but the data has 2 features\n"
        )
        assert runtime_error(wrap.test_di, X, "(findex -1 left (label 0) right (label 1))", 2, out, 1) == (
            "error: tree node tests feature -1 but the data has 2 features\n"
        )
        # Leaves may carry any feature index.
        wrap.test_di(X, [np.array([[-1.0], [-1.0], [99.0], [0.0], [1.0]])], 2, out, 1)

    def test_a_descent_into_a_missing_child(self, data):
        X, _ = data
        out = np.zeros(6, dtype=np.int32)
        only_left = "(findex 0 threshold 2.5 left (label 0))"
        assert runtime_error(wrap.test_di, X, only_left, 2, out, 2) == "error: tree descent reached a missing child\n"
        wrap.test_di(X[:, :2], only_left, 2, out, 2)  # values below 2.5 never go right

    def test_outputs_must_hold_every_instance_and_class(self, data):
        X, _ = data
        forest = [leaf(1)]
        assert runtime_error(wrap.test_di, X, forest, 3, np.zeros(5, dtype=np.int32), 1) == (
            "labels_out_ dimension 0 is 5, too small for 6 instances"
        )
        assert runtime_error(wrap.test_di, X, forest, 3, np.zeros(6, dtype=np.int16), 1) == (
            "labels_out_ has 2-byte elements, too small for int32 (4 bytes): pass an array of int32"
        )
        assert runtime_error(wrap.test_di, X, forest, 3, np.array(0, dtype=np.int32), 1) == (
            "labels_out_ must have at least 1 dimension, not 0"
        )
        read_only = np.zeros(6, dtype=np.int32)
        read_only.flags.writeable = False
        assert runtime_error(wrap.test_di, X, forest, 3, read_only, 1) == "labels_out_ must be a writeable array"
        assert runtime_error(wrap.prob_dd, X, forest, 3, np.zeros((6, 2)), 1) == (
            "probs_out_ dimension 1 is 2, too small for 3 classes"
        )
        assert runtime_error(wrap.prob_dd, X, forest, 3, np.zeros((5, 3)), 1) == (
            "probs_out_ dimension 0 is 5, too small for 6 instances"
        )
        assert runtime_error(wrap.prob_dd, X, forest, 3, np.zeros(18), 1) == (
            "probs_out_ must be a 2-dimensional array (instances x classes), not 1-dimensional"
        )
        assert "probs_out_ has 4-byte elements" in runtime_error(wrap.prob_dd, X, forest, 3, np.zeros((6, 3), np.float32), 1)
        # Larger outputs are fine: only the leading part is written.
        wide = np.full((7, 4), -1.0, dtype=np.float32)
        wrap.prob_ds(X, forest, 3, wide, 1)
        np.testing.assert_array_equal(wide[:6, :3], [[0, 1, 0]] * 6)
        assert (wide[6] == -1).all() and (wide[:, 3] == -1).all()

    def test_matrix_and_counts(self, data):
        X, _ = data
        out = np.zeros(6, dtype=np.int32)
        assert runtime_error(wrap.test_di, X.astype(np.float32), [leaf(1)], 3, out, 1) == (
            "X_ has 4-byte elements, too small for float64 (8 bytes): pass an array of float64"
        )
        assert "X_ must be a 2-dimensional array" in runtime_error(wrap.test_di, X[None], [leaf(1)], 3, out, 1)
        assert runtime_error(wrap.test_di, X, [leaf(1)], -1, out, 1) == "num_classes must be >= 0, not -1"
        assert runtime_error(wrap.test_di, X, [leaf(1)], 3, out, 0) == "num_threads must be at least 1, not 0"
        with pytest.raises(TypeError):
            wrap.test_di(X, [leaf(1)], 3, labels_out_=out, num_threads=1)
        with pytest.raises(TypeError):
            wrap.prob_dd(X, [leaf(1)], 3, [[0.0] * 3] * 6, 1)
