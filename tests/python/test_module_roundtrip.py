"""Learning and prediction through the raw module: every function, strided
arrays, vote fractions, determinism and memory."""

import ctypes

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import leaf, stump

FEATURE_TYPES = {"i": np.int32, "d": np.float64, "s": np.float32, "b": np.uint8}
LABEL_TYPES = {"i": np.int32, "d": np.float64, "s": np.float32}
# In the order of the method table.
LEARNERS = [f"learn_{f}i_{criterion}" for criterion in ("infogain", "gini", "gainratio") for f in "idsb"]
LEARNERS += [f"learn_{f}{l}_variance" for l in "ds" for f in "idsb"]


def two_class_data(n=80):
    """Instance-major (n, 3) values in 0..200 and labels given by the first
    two features, with one noise feature."""
    X = np.random.default_rng(0).integers(0, 200, size=(n, 3))
    return X, (X[:, 0] + X[:, 1] > 200).astype(np.int32)


def test_the_method_table_has_the_34_functions_in_order():
    expected = LEARNERS + [f"test_{f}i" for f in "idsb"]
    expected += [f"prob_{f}{t}" for f, t in ("dd", "ds", "sd", "ss", "id", "is", "bd", "bs")]
    expected += ["init_pool", "set_seed"]
    functions = [name for name in vars(wrap) if callable(getattr(wrap, name))]
    assert functions == expected


@pytest.mark.parametrize("learner", LEARNERS)
def test_every_learner_round_trips_through_test_and_prob(learner):
    f, l = learner[6], learner[7]
    X, y = two_class_data()
    X_fm = np.ascontiguousarray(X.T.astype(FEATURE_TYPES[f]))
    # Real labels carry a fraction; they count under their integer part.
    labels = (y + 0.25).astype(LABEL_TYPES[l]) if l != "i" else y
    wrap.set_seed(17)
    trees, importances = getattr(wrap, learner)(X_fm, labels, 2, 15, 1.0, 2, 0, 2, 1)
    assert len(trees) == 15
    assert all(tree.dtype == np.float64 and tree.flags.c_contiguous and tree.shape[0] == 5 for tree in trees)
    assert importances.dtype == np.float64 and importances.shape == (3,)
    assert importances[2] < importances[0] and importances[2] < importances[1]

    predicted = np.full(len(y), -7, dtype=np.int32)
    assert getattr(wrap, f"test_{f}i")(X_fm, trees, 2, predicted, 2) == 0.0
    assert (predicted == y).mean() > 0.9

    for out_type in "ds":
        probabilities = np.full((len(y), 2), -1.0, dtype=FEATURE_TYPES[out_type])
        getattr(wrap, f"prob_{f}{out_type}")(X_fm, trees, 2, probabilities, 2)
        np.testing.assert_allclose(probabilities.sum(axis=1), 1.0, rtol=1e-6)
        # The larger fraction is the predicted class (ties go to class 0).
        np.testing.assert_array_equal(np.where(probabilities[:, 1] > probabilities[:, 0], 1, 0), predicted)


def test_zero_trees_make_an_empty_forest():
    # Importances are None unless asked for (asserted for every learner in
    # test_forest_hashes.py, here with no trees at all).
    X, y = two_class_data()
    assert wrap.learn_di_gini(np.ascontiguousarray(X.T, dtype=np.float64), y, 2, 0, 1.0, 2, 0, 1, 0) == ([], None)


def test_vote_fractions_are_votes_over_trees_narrowed_to_the_output_type():
    forest, X = [leaf(1)] * 3 + [leaf(0)] * 7, np.zeros((1, 2))
    single, double = np.zeros((2, 2), dtype=np.float32), np.zeros((2, 2))
    wrap.prob_ds(X, forest, 2, single, 1)
    wrap.prob_dd(X, forest, 2, double, 1)
    assert single[0, 1] == np.float32(0.3)
    assert double[1, 1] == 0.3 and double[1, 0] == 0.7


def test_strided_inputs_and_outputs():
    X, y = two_class_data(60)
    instance_major = X.astype(np.float64)  # (60, 3), C order
    dense_X = np.ascontiguousarray(instance_major.T)
    forests = []
    # The transposed view, and labels read every second element.
    for features, labels in ((dense_X, y), (instance_major.T, np.repeat(y, 2)[::2])):
        wrap.set_seed(5)
        forests.append(wrap.learn_di_gini(features, labels, 2, 6, 1.0, 2, 0, 1, 0)[0])
    assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(*forests))
    dense = forests[0]
    reference, expected = np.zeros(len(y), dtype=np.int32), np.zeros((len(y), 2))
    wrap.test_di(dense_X, dense, 2, reference, 1)
    wrap.prob_dd(dense_X, dense, 2, expected, 1)
    # labels_out_ with an 8-byte stride fills every second int32; tree
    # arrays are read through their strides too (Fortran order, float32).
    spaced_out = np.full(2 * len(y), -9, dtype=np.int32)
    fortran = [np.asfortranarray(t).astype(np.float32, order="F") for t in dense]
    wrap.test_di(instance_major.T, fortran, 2, spaced_out[::2], 1)
    np.testing.assert_array_equal(spaced_out[::2], reference)
    assert (spaced_out[1::2] == -9).all()
    # probs_out_ as the transpose of a classes x instances array.
    classes_major = np.full((2, len(y)), -1.0)
    wrap.prob_dd(instance_major.T, dense, 2, classes_major.T, 1)
    np.testing.assert_array_equal(classes_major.T, expected)


def test_missing_values_are_filled_with_medians_of_the_whole_matrix_through_its_strides():
    # Instance-major storage handed over as its transpose; column 0 has 3
    # present values (median 5), column 1 none (filled with 0), column 2
    # nothing missing. Each stump votes through one feature.
    instances = np.array([[5.0, np.nan, 1.0], [np.nan, np.nan, 2.0], [9.0, np.nan, 3.0], [1.0, np.nan, 4.0]])
    stumps = [stump(0, 5.0), stump(1, 0.0), stump(2, 2.5)]
    for dtype, function in ((np.float64, wrap.prob_dd), (np.float32, wrap.prob_sd)):
        X = instances.astype(dtype)
        out = np.zeros((4, 2))
        function(X.T, stumps, 2, out, 2)
        # Votes for class 1: column 0 (5 -> right, NaN -> 5 -> right, 9, 1),
        # column 1 (0 -> right always), column 2 (>= 2.5 for the last two).
        np.testing.assert_array_equal(out[:, 1] * 3, [2, 2, 3, 2])
        filled = X.copy()
        filled[1, 0] = 5.0
        filled[:, 1] = 0.0
        expected = np.zeros((4, 2))
        function(np.ascontiguousarray(filled.T), stumps, 2, expected, 1)
        np.testing.assert_array_equal(out, expected)


@pytest.mark.parametrize("num_threads", [1, 3])
def test_same_seed_same_forest(num_threads):
    X, y = two_class_data(50)
    X_fm = np.ascontiguousarray(X.T, dtype=np.float32)
    runs = []
    for seed in (2**32 + 12345, 2**32 + 12345, 12345):  # only the low 32 bits count
        wrap.set_seed(seed)
        runs.append(wrap.learn_si_infogain(X_fm, y, 2, 7, 0.8, 2, 0, num_threads, 1))
    for trees, importances in runs[1:]:
        for a, b in zip(runs[0][0], trees):
            np.testing.assert_array_equal(a, b)
        np.testing.assert_array_equal(runs[0][1], importances)


def _resident_kib():
    with open("/proc/self/statm") as statm:
        pages = int(statm.read().split()[1])
    return pages * 4


def test_resident_memory_stays_flat_over_many_calls():
    X, y = two_class_data(40)
    X_fm = np.ascontiguousarray(X.T, dtype=np.float64)
    bad_labels = y.copy()
    bad_labels[-1] = 5
    predicted = np.zeros(len(y), dtype=np.int32)
    probabilities = np.zeros((len(y), 2))
    wrap.set_seed(1)

    def calls(n):
        for _ in range(n):
            trees, importances = wrap.learn_di_gini(X_fm, y, 2, 5, 1.0, 2, 0, 2, 1)
            wrap.test_di(X_fm, trees, 2, predicted, 2)
            wrap.prob_dd(X_fm, trees + [leaf(1)], 2, probabilities, 2)
            # Error paths: after a label check, and after trees were rebuilt.
            with pytest.raises(RuntimeError):
                wrap.learn_di_gini(X_fm, bad_labels, 2, 5, 1.0, 2, 0, 1, 0)
            with pytest.raises(RuntimeError):
                wrap.test_di(X_fm, trees + [np.zeros((5, 2), dtype=np.int32)], 2, predicted, 1)
            with pytest.raises(RuntimeError):
                wrap.test_di(X_fm, "(label 1) (label 0) (label", 2, predicted, 1)

    calls(200)
    before = _resident_kib()
    calls(2000)
    growth = _resident_kib() - before
    # Keeping the trees of every call would add about 5 MiB here.
    assert growth < 1536, f"resident memory grew by {growth} KiB"


def test_the_thread_count_stays_in_force_after_a_call():
    gomp = ctypes.CDLL("libgomp.so.1")
    X, y = two_class_data(20)
    X_fm = np.ascontiguousarray(X.T, dtype=np.float64)
    wrap.set_seed(2)
    trees, _ = wrap.learn_di_gini(X_fm, y, 2, 2, 1.0, 2, 0, 4, 0)
    assert gomp.omp_get_max_threads() == 4
    wrap.test_di(X_fm, trees, 2, np.zeros(20, dtype=np.int32), 3)
    assert gomp.omp_get_max_threads() == 3
