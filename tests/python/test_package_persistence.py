"""Pickling and the portable .npz forest file: exact round trips, and damaged
files refused with ValueError before the module ever sees their trees."""

import io
import json
import os
import pickle
import stat
import zipfile

import numpy as np
import pandas as pd
import pytest
from sklearn.exceptions import NotFittedError

import velmot
from velmot import RandomForestClassifier


@pytest.fixture(scope="module")
def training():
    rng = np.random.RandomState(0)
    X = rng.rand(120, 5)
    X[::9, 1] = np.nan
    y = np.array(["low", "mid", "high"])[(X[:, 0] * 3).astype(int)]
    return pd.DataFrame(X, columns=list("abcde")), pd.Series(y, dtype=object)


@pytest.fixture(scope="module")
def forest(training):
    X, y = training
    return RandomForestClassifier(n_estimators=12, max_depth=6, criterion="entropy", random_state=4).fit(X, y)


def assert_predicts_alike(original, restored, X):
    np.testing.assert_array_equal(original.predict(X), restored.predict(X))
    np.testing.assert_array_equal(original.predict_proba(X), restored.predict_proba(X))


@pytest.mark.parametrize("with_nodes", [True, False])
def test_pickles_holding_trees_load_without_keeping_them(forest, training, with_nodes):
    # Earlier versions pickled trees_ beside nodes_, and before that alone.
    state = {**forest.__getstate__(), "trees_": forest.trees_}
    if not with_nodes:
        del state["nodes_"]
    restored = pickle.loads(pickle.dumps(forest))
    restored.__setstate__(state)
    assert_predicts_alike(forest, restored, training[0])
    assert "trees_" not in vars(restored) and "trees_" not in vars(forest)


def test_pickle_and_save_round_trips_are_exact(forest, training, tmp_path):
    X, _ = training
    pickled = pickle.loads(pickle.dumps(forest))
    assert_predicts_alike(forest, pickled, X)
    np.testing.assert_array_equal(pickled.feature_importances_, forest.feature_importances_)
    path, buffer = tmp_path / "forest", io.BytesIO()  # written exactly at path: no suffix is added
    forest.save(path)
    forest.save(buffer)
    buffer.seek(0)
    for restored in (velmot.load(path), velmot.load(buffer)):
        assert_predicts_alike(forest, restored, X)
        assert restored.get_params() == forest.get_params()
        np.testing.assert_array_equal(restored.classes_, forest.classes_)
        np.testing.assert_array_equal(restored.feature_names_in_, list("abcde"))
        np.testing.assert_array_equal(restored.feature_importances_, forest.feature_importances_)
        assert restored.n_features_in_ == 5 and restored.n_classes_ == 3
        assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(restored.trees_, forest.trees_))
        for name, array in forest.nodes_.as_dict().items():
            np.testing.assert_array_equal(getattr(restored.nodes_, name), array)
    # A file without node statistics (an older writer's) loads with them unknown.
    arrays, metadata = forest._to_model()
    del arrays["node_counts"], arrays["node_impurities"]
    older = RandomForestClassifier._from_model(arrays, metadata)
    assert_predicts_alike(forest, older, X)
    assert not older.nodes_.count.any() and np.isnan(older.nodes_.impurity).all()
    # The restored forest is a full estimator: it can be refitted.
    restored.fit(X, forest.predict(X))


def test_save_replaces_a_file_whole_or_not_at_all_with_the_modes_open_would_give(forest, tmp_path, monkeypatch):
    with pytest.raises(NotFittedError):
        RandomForestClassifier().save(tmp_path / "never.npz")
    with pytest.raises(FileNotFoundError):
        velmot.load(tmp_path / "never.npz")
    with pytest.raises(FileNotFoundError, match="no/such does not exist"):
        forest.save(tmp_path / "no" / "such" / "forest.npz")
    path = tmp_path / "forest.npz"
    old_umask = os.umask(0o027)
    try:
        forest.save(path)
    finally:
        os.umask(old_umask)
    assert stat.S_IMODE(path.stat().st_mode) == 0o640
    path.chmod(0o604)
    before = path.read_bytes()

    def disk_full(*args, **kwargs):
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(np.lib.format, "write_array", disk_full)
    with pytest.raises(OSError, match="No space"):
        forest.save(path)
    assert path.read_bytes() == before and os.listdir(tmp_path) == ["forest.npz"]
    monkeypatch.undo()
    forest.save(path)
    assert stat.S_IMODE(path.stat().st_mode) == 0o604
    # Links are written through; anything but a regular file is refused.
    (tmp_path / "link.npz").symlink_to(path)
    forest.save(tmp_path / "link.npz")
    assert (tmp_path / "link.npz").is_symlink()
    os.mkfifo(tmp_path / "pipe")
    with pytest.raises(FileExistsError, match="not a regular file"):
        forest.save(tmp_path / "pipe")


@pytest.fixture
def tampered(forest, tmp_path):
    """Writes the forest's file with the entries a tamper function returns
    replaced (None removes one); gives the altered file's path."""
    forest.save(tmp_path / "forest.npz")
    with np.load(tmp_path / "forest.npz") as archive:
        contents = {key: archive[key] for key in archive.files}

    def write(tamper):
        altered = {**contents, **tamper(Tampering(contents))}
        np.savez(tmp_path / "altered.npz", **{key: value for key, value in altered.items() if value is not None})
        return tmp_path / "altered.npz"

    return write


def test_truncated_or_corrupted_files_are_refused(training, tmp_path):
    # With feature names and medians, the optional entries a damaged entry
    # count in the zip directory would drop without an error.
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
        np.testing.assert_array_equal(restored.feature_names_in_, small.feature_names_in_)
        np.testing.assert_array_equal(restored._missing_value_fill_, small._missing_value_fill_)
    damaged = tmp_path / "pickled.npz"
    damaged.write_bytes(pickle.dumps({"nodes": 1}))
    with pytest.raises(ValueError, match="not a readable velmot forest file"):
        velmot.load(damaged)


class Tampering:
    """The saved file's entries and the first tree's first split and leaf."""

    def __init__(self, contents):
        self.contents = contents
        self.size = int(contents["tree_sizes"][0])
        first = contents["nodes"][:, : self.size]
        self.split, self.leaf = np.flatnonzero(first[0] >= 0)[0], np.flatnonzero(first[0] < 0)[0]
        self.metadata = json.loads(str(contents["metadata"]))

    def node(self, row, column, value):
        nodes = self.contents["nodes"].copy()
        nodes[row, column] = value
        return {"nodes": nodes}

    def params(self, **changes):
        params = {**self.metadata["params"], **changes}
        return {"metadata": np.array(json.dumps({**self.metadata, "params": params}))}


def cycle_away_from_the_root(t):
    # Nodes 1 and 2 name each other as children: every node still has one
    # parent, but neither is reachable from the root.
    cycle = np.array([[-1, 2, 1], [-1, 2, 1], [-1, 0, 0], [np.nan, 0.5, 0.5], [0, -2, -2]], dtype=np.float64)
    return {
        "nodes": np.concatenate([cycle, t.contents["nodes"][:, t.size :]], axis=1),
        "tree_sizes": np.concatenate([[3], t.contents["tree_sizes"][1:]]),
    }


@pytest.mark.parametrize(
    "tamper, message",
    [
        (lambda t: t.node(0, t.split, t.size), "child index is out of range"),
        (lambda t: t.node(1, t.split, t.contents["nodes"][0, t.split]), "reachable twice or not at all"),
        (cycle_away_from_the_root, "child index is out of range|reachable"),
        (lambda t: t.node(1, t.split, -1), "exactly one child"),
        (lambda t: t.node(0, t.split, 1.5), "fractional"),
        (lambda t: t.node(4, t.leaf, 3), "leaf label is not below the class count"),
        (lambda t: t.node(2, t.split, 5), "split feature is out of range"),
        (lambda t: t.node(3, t.split, np.nan), "NaN threshold"),
        (lambda t: {"tree_sizes": t.contents["tree_sizes"] + 1}, "do not add up"),
        (lambda t: {"nodes": t.contents["nodes"][:4]}, "nodes must be"),
        (
            lambda t: {"nodes": t.contents["nodes"][:, t.size :], "tree_sizes": t.contents["tree_sizes"][1:]},
            "differs from n_estimators",
        ),
        (lambda t: {"classes": t.contents["classes"][::-1]}, "sorted and distinct"),
        (lambda t: {"classes": t.contents["classes"].astype(object)}, "holds Python objects"),
        (lambda t: {"metadata": np.array("[" * 100_000)}, "not JSON of a sane depth"),
        (lambda t: t.node(2, t.leaf, 1), "leaf carries a feature index"),
        (lambda t: t.node(4, t.split, 1e300), "split label -2"),
        (lambda t: {"metadata": np.array("{params")}, "not JSON"),
        (lambda t: t.params(warm_start=True), "unexpected estimator parameters"),
        (lambda t: t.params(n_jobs=99), "'n_jobs' parameter"),
        (lambda t: {"feature_importances": t.contents["feature_importances"][:4]}, "feature_importances must be"),
        (lambda t: {"nodes": None}, "missing nodes"),
        (lambda t: {"missing_value_fill": None}, "damaged velmot forest file: missing missing_value_fill"),
        (lambda t: {"format": np.array(2)}, "format"),
    ],
)
def test_tampered_files_are_refused(tampered, tamper, message):
    with pytest.raises(ValueError, match=message):
        velmot.load(tampered(tamper))


def test_files_written_before_the_growth_controls_load_under_the_old_leaf_rule(forest, tampered, training):
    newer = ("min_samples_split", "min_samples_leaf", "min_impurity_decrease", "oob_score", "class_weight")
    params = {k: v for k, v in forest.get_params().items() if k not in newer}
    restored = velmot.load(tampered(lambda t: {"metadata": np.array(json.dumps({**t.metadata, "params": params}))}))
    assert restored.get_params() == {**forest.get_params(), "min_samples_leaf": "pairs"}
    assert_predicts_alike(forest, restored, training[0])


def test_loading_reads_only_the_forests_entries_and_checks_sizes_first(forest, training, tmp_path):
    path = tmp_path / "forest.npz"
    forest.save(path)
    # A deflated gigabyte beside the forest is never inflated.
    with zipfile.ZipFile(path, "a", compression=zipfile.ZIP_DEFLATED) as archive:
        with archive.open("huge.npy", "w", force_zip64=True) as entry:
            for _ in range(1024):
                entry.write(bytes(1 << 20))
    assert_predicts_alike(forest, velmot.load(path), training[0])
    # An entry whose header claims more than the entry holds is damaged, not
    # a MemoryError.
    with zipfile.ZipFile(path) as archive:
        entries = {name: archive.read(name) for name in archive.namelist() if name != "huge.npy"}
    header = np.lib.format.header_data_from_array_1_0(np.zeros(1))
    header["shape"] = (2**40,)
    lying = io.BytesIO()
    np.lib.format.write_array_header_1_0(lying, header)
    entries["nodes.npy"] = lying.getvalue() + bytes(8)
    with zipfile.ZipFile(path, "w") as archive:
        for name, data in entries.items():
            archive.writestr(name, data)
    with pytest.raises(ValueError, match="nodes.npy has the wrong size"):
        velmot.load(path)
