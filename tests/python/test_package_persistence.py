"""Pickling and the portable .npz forest file: exact round trips, and damaged
files refused with ValueError before the module ever sees their trees."""

import io
import json
import pickle

import numpy as np
import pandas as pd
import pytest
import velmot
from sklearn.exceptions import NotFittedError
from velmot import RandomForestClassifier


@pytest.fixture(scope="module")
def training():
    rng = np.random.RandomState(0)
    X = rng.rand(120, 5)
    X[::9, 1] = np.nan
    y = np.array(["low", "mid", "high"])[(X[:, 0] * 3).astype(int)]
    return X, y


@pytest.fixture(scope="module")
def forest(training):
    X, y = training
    return RandomForestClassifier(n_estimators=12, max_depth=6, criterion="entropy", random_state=4).fit(X, y)


def assert_predicts_alike(original, restored, X):
    np.testing.assert_array_equal(original.predict(X), restored.predict(X))
    np.testing.assert_array_equal(original.predict_proba(X), restored.predict_proba(X))


def test_pickle_round_trip_is_exact(forest, training):
    X, _ = training
    restored = pickle.loads(pickle.dumps(forest))
    assert_predicts_alike(forest, restored, X)
    np.testing.assert_array_equal(restored.feature_importances_, forest.feature_importances_)


def test_save_and_load_round_trip_is_exact(forest, training, tmp_path):
    X, _ = training
    path = tmp_path / "forest"  # written exactly here: no suffix is added
    forest.save(path)
    restored = velmot.load(path)
    assert_predicts_alike(forest, restored, X)
    assert restored.get_params() == forest.get_params()
    np.testing.assert_array_equal(restored.classes_, forest.classes_)
    np.testing.assert_array_equal(restored.feature_importances_, forest.feature_importances_)
    assert restored.n_features_in_ == 5 and restored.n_classes_ == 3
    assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(restored.trees_, forest.trees_))
    # The restored forest is a full estimator: it can be refitted.
    restored.fit(X, forest.predict(X))


def test_save_and_load_through_file_objects_keep_feature_names(training):
    X, y = training
    frame = pd.DataFrame(X, columns=list("abcde"))
    forest = RandomForestClassifier(n_estimators=3, random_state=0).fit(frame, pd.Series(y, dtype=object))
    buffer = io.BytesIO()
    forest.save(buffer)
    buffer.seek(0)
    restored = velmot.load(buffer)
    np.testing.assert_array_equal(restored.feature_names_in_, list("abcde"))
    assert_predicts_alike(forest, restored, frame)


def test_saving_needs_a_fitted_forest(tmp_path):
    with pytest.raises(NotFittedError):
        RandomForestClassifier().save(tmp_path / "never.npz")


@pytest.fixture
def saved(forest, tmp_path):
    """The forest's file contents as a dict, and a writer of altered copies."""
    path = tmp_path / "forest.npz"
    forest.save(path)
    with np.load(path) as archive:
        contents = {key: archive[key] for key in archive.files}

    def write(**changes):
        altered = {**contents, **changes}
        for key in [key for key, value in altered.items() if value is None]:
            del altered[key]
        target = tmp_path / "altered.npz"
        np.savez(target, **altered)
        return target

    return path, contents, write


def test_truncated_or_corrupted_files_are_refused(training, tmp_path):
    X, y = training
    small = RandomForestClassifier(n_estimators=1, max_depth=2, random_state=0).fit(X, y)
    buffer = io.BytesIO()
    small.save(buffer)
    data = buffer.getvalue()
    for length in range(0, len(data), 7):
        with pytest.raises(ValueError, match="not a readable velmot forest file"):
            velmot.load(io.BytesIO(data[:length]))
    for position in range(len(data)):
        flipped = bytearray(data)
        flipped[position] ^= 0xFF
        # Most bytes are guarded by a checksum or a header check; a few (file
        # times, for instance) are harmless.
        try:
            restored = velmot.load(io.BytesIO(bytes(flipped)))
        except ValueError:
            continue
        assert_predicts_alike(small, restored, X)
    damaged = tmp_path / "pickled.npz"
    damaged.write_bytes(pickle.dumps({"nodes": 1}))
    with pytest.raises(ValueError, match="not a readable velmot forest file"):
        velmot.load(damaged)


def test_missing_file_is_a_file_not_found_error(tmp_path):
    with pytest.raises(FileNotFoundError):
        velmot.load(tmp_path / "absent.npz")


def altered_nodes(contents, tree, row, column, value):
    nodes = contents["nodes"].copy()
    start = int(np.sum(contents["tree_sizes"][:tree]))
    nodes[row, start + column] = value
    return nodes


def first_split_and_leaf(contents):
    size = int(contents["tree_sizes"][0])
    first = contents["nodes"][:, :size]
    splits = np.flatnonzero(first[0] >= 0)
    leaves = np.flatnonzero(first[0] < 0)
    return size, splits[0], leaves[0]


@pytest.mark.parametrize(
    "tamper, message",
    [
        ("left child beyond the tree", "child index is out of range"),
        ("left child pointing back to the root", "child index is out of range"),
        ("both children the same node", "reachable twice or not at all"),
        ("one child only", "exactly one child"),
        ("fractional child", "fractional"),
        ("leaf label equal to the class count", "leaf label is not below the class count"),
        ("negative leaf label", "leaf label is not below the class count"),
        ("split feature beyond the features", "split feature is out of range"),
        ("NaN split threshold", "NaN threshold"),
        ("tree sizes that do not add up", "do not add up"),
        ("a tree of no nodes", "bad tree size"),
        ("nodes with four rows", "nodes must be"),
        ("float32 nodes", "nodes must be"),
        ("fewer trees than n_estimators", "differs from n_estimators"),
        ("unsorted classes", "sorted and distinct"),
        ("object classes", "not a readable"),
        ("metadata that is not JSON", "not JSON"),
        ("an unknown parameter", "unexpected estimator parameters"),
        ("an out-of-range parameter", "'n_jobs' parameter"),
        ("short importances", "feature_importances must be"),
        ("no nodes entry", "missing nodes"),
        ("a newer format", "format"),
    ],
)
def test_tampered_files_are_refused(saved, tamper, message):
    _, contents, write = saved
    size, split, leaf = first_split_and_leaf(contents)
    metadata = json.loads(str(contents["metadata"]))
    changes = {
        "left child beyond the tree": lambda: {"nodes": altered_nodes(contents, 0, 0, split, size)},
        "left child pointing back to the root": lambda: {"nodes": altered_nodes(contents, 0, 0, split, 0)},
        "both children the same node": lambda: {
            "nodes": altered_nodes(contents, 0, 1, split, contents["nodes"][0, split])
        },
        "one child only": lambda: {"nodes": altered_nodes(contents, 0, 1, split, -1)},
        "fractional child": lambda: {"nodes": altered_nodes(contents, 0, 0, split, 1.5)},
        "leaf label equal to the class count": lambda: {"nodes": altered_nodes(contents, 0, 4, leaf, 3)},
        "negative leaf label": lambda: {"nodes": altered_nodes(contents, 0, 4, leaf, -1)},
        "split feature beyond the features": lambda: {"nodes": altered_nodes(contents, 0, 2, split, 5)},
        "NaN split threshold": lambda: {"nodes": altered_nodes(contents, 0, 3, split, np.nan)},
        "tree sizes that do not add up": lambda: {"tree_sizes": contents["tree_sizes"] + 1},
        "a tree of no nodes": lambda: {"tree_sizes": np.concatenate([[0], contents["tree_sizes"]])},
        "nodes with four rows": lambda: {"nodes": contents["nodes"][:4]},
        "float32 nodes": lambda: {"nodes": contents["nodes"].astype(np.float32)},
        "fewer trees than n_estimators": lambda: {
            "nodes": contents["nodes"][:, size:],
            "tree_sizes": contents["tree_sizes"][1:],
        },
        "unsorted classes": lambda: {"classes": contents["classes"][::-1]},
        "object classes": lambda: {"classes": contents["classes"].astype(object)},
        "metadata that is not JSON": lambda: {"metadata": np.array("{params")},
        "an unknown parameter": lambda: {
            "metadata": np.array(json.dumps({**metadata, "params": {**metadata["params"], "oob_score": True}}))
        },
        "an out-of-range parameter": lambda: {
            "metadata": np.array(json.dumps({**metadata, "params": {**metadata["params"], "n_jobs": 99}}))
        },
        "short importances": lambda: {"feature_importances": contents["feature_importances"][:4]},
        "no nodes entry": lambda: {"nodes": None},
        "a newer format": lambda: {"format": np.array(2)},
    }[tamper]()
    with pytest.raises(ValueError, match=message):
        velmot.load(write(**changes))


def test_a_cycle_away_from_the_root_is_refused(saved):
    # Nodes 1 and 2 name each other as children: every node still has one
    # parent, but neither is reachable from the root.
    _, contents, write = saved
    cycle = np.array([[-1, 2, 1], [-1, 2, 1], [-1, 0, 0], [np.nan, 0.5, 0.5], [0, -2, -2]], dtype=np.float64)
    nodes = np.concatenate([cycle, contents["nodes"][:, int(contents["tree_sizes"][0]) :]], axis=1)
    sizes = np.concatenate([[3], contents["tree_sizes"][1:]])
    with pytest.raises(ValueError, match="child index is out of range|reachable"):
        velmot.load(write(nodes=nodes, tree_sizes=sizes))
