"""Forests exported as ONNX graphs predict as Velmot does in onnxruntime."""

import numpy as np
import onnxruntime
import pytest

import velmot
from test_cli import EXAMPLES, IRIS, read_rows, run
from velmot import RandomForestClassifier


def session(path):
    return onnxruntime.InferenceSession(str(path), providers=["CPUExecutionProvider"])


@pytest.mark.parametrize(
    "dtype, labels, n_trees",
    [
        (np.float64, np.array(["down", "flat", "up"]), 8),  # even: vote ties, which go to the first class
        (np.float32, np.array([3, 7, 9]), 5),
        (np.int32, np.array([-2, 0, 5]), 6),
    ],
)
def test_labels_and_probabilities_match_on_thresholds_and_nan(tmp_path, dtype, labels, n_trees):
    rng = np.random.default_rng(3)
    X = rng.normal(scale=3, size=(500, 4)).round(1)
    y = labels[np.digitize(X[:, 0] + X[:, 1] + rng.normal(size=500), [-1, 1])]
    X = X.astype(dtype)
    if dtype != np.int32:
        X[rng.random(500) < 0.1, 2] = np.nan  # imputed by the training medians
    forest = RandomForestClassifier(n_trees, random_state=0).fit(X, y)
    forest.to_onnx(tmp_path / "f.onnx")
    # Rows holding every split's threshold exactly on its feature, then NaN rows.
    nodes = forest.nodes_
    split = nodes.left >= 0
    rows = np.tile(X[:1].astype(np.float64), (split.sum(), 1))
    rows[np.arange(split.sum()), nodes.feature[split]] = nodes.threshold[split]
    rows = np.vstack([rows, X, np.full((1, 4), np.nan)])
    rows[::3, 1] = np.nan
    label, proba = session(tmp_path / "f.onnx").run(None, {"X": rows})
    np.testing.assert_array_equal(label, forest.predict(rows))
    np.testing.assert_array_equal(proba, forest.predict_proba(rows).astype(np.float32))


def test_velmot_export_labels_with_the_class_names(tmp_path):
    model, graph, out = tmp_path / "m.npz", tmp_path / "m.onnx", tmp_path / "o.csv"
    assert run("train", *IRIS, "--trees", 7, "--seed", 0, "--quiet", "-o", model) == 0
    assert run("export", model, graph) == 0
    assert run("predict", model, *IRIS, "-o", out) == 0
    X = np.array([row[1:5] for row in read_rows(EXAMPLES / "iris.csv")[1:]], dtype=np.float64)
    label, _ = session(graph).run(None, {"X": X})
    assert label.tolist() == [row[0] for row in read_rows(out)]


@pytest.mark.skipif(not hasattr(velmot, "RandomForestRegressor"), reason="no regressor in this build")
def test_a_regressor_graph_predicts_the_mean_of_its_leaves(tmp_path):
    rng = np.random.default_rng(4)
    X = rng.normal(size=(300, 3)).round(1)
    y = 2 * X[:, 0] + rng.normal(size=300)
    X[::7, 1] = np.nan
    forest = velmot.RandomForestRegressor(5, random_state=0).fit(X, y)
    forest.to_onnx(tmp_path / "r.onnx")
    (prediction,) = session(tmp_path / "r.onnx").run(None, {"X": X})
    np.testing.assert_allclose(prediction[:, 0], forest.predict(X), rtol=1e-6, atol=1e-6)  # float32
