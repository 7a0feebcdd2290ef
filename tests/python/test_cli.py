"""The velmot command: train, inspect and predict from CSV files."""

import csv
import os
import signal
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import velmot
from velmot import RandomForestClassifier, RandomForestRegressor, cli
from velmot._model_file import read_model_file

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
IRIS = [EXAMPLES / "iris.csv", "--description", EXAMPLES / "iris.desc"]


def run(*argv):
    try:
        return cli.main([str(a) for a in argv])
    except SystemExit as exit:  # usage mistakes, from argparse
        return exit.code


def fails(capsys, *argv):
    """Runs a command that must fail: exit status 2 and a single line of error, returned."""
    capsys.readouterr()
    assert run(*argv) == 2
    err = capsys.readouterr().err.strip()
    assert err.startswith("velmot: error: ") and "\n" not in err
    return err


def read_rows(path):
    with open(path, newline="") as f:
        return list(csv.reader(f))


def write_csv(path, rows):
    with open(path, "w", newline="") as f:
        csv.writer(f).writerows(rows)
    return path


def leftovers(folder):
    return [p.name for p in folder.iterdir() if p.name.startswith(".velmot-")]


@pytest.fixture
def iris_model(tmp_path):
    model = tmp_path / "iris.npz"
    assert run("train", *IRIS, "--trees", 30, "--seed", 3, "--quiet", "-o", model) == 0
    return model


def test_train_inspect_predict_on_the_shipped_example(iris_model, tmp_path, capsys, monkeypatch):
    assert run("inspect", iris_model) == 0
    summary = capsys.readouterr().out
    assert "classes:  setosa, versicolor, virginica" in summary

    proba, chunked = tmp_path / "proba.csv", tmp_path / "chunked.csv"
    assert run("predict", iris_model, *IRIS, "--proba", "-o", proba) == 0
    classes, *rows = read_rows(proba)
    truth = [row[5] for row in read_rows(EXAMPLES / "iris.csv")[1:]]
    assert np.mean(np.array(classes)[np.argmax(np.array(rows, dtype=float), axis=1)] == truth) > 0.95
    # Prediction in chunks writes what prediction whole does.
    monkeypatch.setattr(cli, "PREDICT_CHUNK_ROWS", 7)
    assert run("predict", iris_model, *IRIS, "--proba", "-o", chunked) == 0
    assert chunked.read_text() == proba.read_text()
    assert run("predict", iris_model, *IRIS, "-o", chunked) == 0
    assert np.mean(np.array(read_rows(chunked))[:, 0] == truth) > 0.95  # names, chunk by chunk

    result = subprocess.run(
        [sys.executable, "-m", "velmot", "inspect", str(iris_model)], capture_output=True, text=True
    )
    assert result.stdout == summary, result.stderr


def test_class_column_ignore_and_label_codes_are_honoured(tmp_path, capsys):
    rng = np.random.default_rng(0)
    # Column 0 leaks the class but is ignored; column 2 holds the class.
    # Codes put "zebra" (0) before "apple" (1), unlike alphabetical order.
    rows = [
        [c, f"{c + rng.normal(0, 0.3):.4f}", ["zebra", "apple"][c], f"{rng.normal():.4f}"]
        for c in rng.integers(0, 2, 200)
    ]
    data, description, model = write_csv(tmp_path / "data.csv", rows), tmp_path / "data.desc", tmp_path / "m.npz"
    # A byte-order mark is not part of the first command.
    description.write_text("\ufeffclass-column 2\nignore 0\nlabel 0 zebra\nlabel 1 apple\nfeature-name 3 noise\n")
    assert run("train", data, "--description", description, "--trees", 20, "--seed", 1, "--quiet", "-o", model) == 0
    assert run("inspect", model) == 0
    summary = capsys.readouterr().out
    assert "features: 2" in summary and "classes:  zebra, apple" in summary
    assert "feature 0 (unnamed)" in summary and "noise" in summary


@pytest.mark.parametrize("header", [[], [["a", "b", "parity"]]])
def test_every_row_counts_and_a_byte_order_mark_is_not_data(tmp_path, capsys, header):
    # The first row's missing value does not make it a header either.
    rows = [["NA", 1, "even"]] + [[i % 5, (i * 7) % 3, "odd" if i % 2 else "even"] for i in range(1, 60)]
    data = tmp_path / "d.csv"
    data.write_bytes(b"\xef\xbb\xbf" + write_csv(tmp_path / "plain.csv", header + rows).read_bytes())
    model, out = tmp_path / "m.npz", tmp_path / "o.csv"
    assert run("train", data, "--trees", 5, "--seed", 2, "-o", model) == 0
    assert "on 60 rows and 2 features" in capsys.readouterr().err
    assert run("predict", model, data, "-o", out) == 0 and len(read_rows(out)) == 60
    assert run("inspect", model) == 0
    assert (" a\n" in capsys.readouterr().out) == bool(header)


@pytest.mark.parametrize(
    "order, header, message",
    [
        ([2, 0, 1, 3], True, None),  # by name, whatever the order
        ([1, 0, 2], True, None),  # without the class column
        ([0, 1, 3], True, "lacks 'c'"),
        ([0, 1, 2, 4, 3], True, "has unknown columns 'z'"),
        ([0, 1, 2, 3, 1], True, "are both named 'b'"),
        ([0, 1, 2], False, None),  # by position: features only
        ([0, 1, 2, 4, 3], False, "4 feature columns, but the model was learnt on 3"),
    ],
)
def test_predict_finds_features_by_name_or_by_fitting_position(tmp_path, capsys, order, header, message):
    rng = np.random.default_rng(1)
    rows = [["a", "b", "c", "y", "z"]] + [
        [*map(str, v), "up" if v[0] > v[2] else "down", "0"] for v in rng.normal(size=(80, 3)).round(3)
    ]
    model, expected, out = tmp_path / "m.npz", tmp_path / "e.csv", tmp_path / "o.csv"
    train = write_csv(tmp_path / "t.csv", [row[:4] for row in rows])
    assert run("train", train, "--trees", 10, "--seed", 0, "--quiet", "-o", model) == 0
    assert run("predict", model, train, "-o", expected) == 0
    data = write_csv(tmp_path / "d.csv", [[row[c] for c in order] for row in rows[1 - header :]])
    if message is None:
        assert run("predict", model, data, "-o", out) == 0
        assert out.read_text() == expected.read_text()
    else:
        assert message in fails(capsys, "predict", model, data, "-o", out)


def test_regression_from_a_description_or_the_task_option_writes_exact_values(tmp_path, capsys):
    X = np.random.default_rng(2).normal(size=(60, 2)).round(3)
    data = write_csv(tmp_path / "r.csv", [[*map(str, x), repr(x[0] * 1.7 + x[1] ** 2)] for x in X])
    (tmp_path / "r.desc").write_text("label-type regression\n")
    models = [tmp_path / "d.npz", tmp_path / "t.npz"]
    for model, task in zip(models, (["--description", tmp_path / "r.desc"], ["--task", "regression"])):
        assert run("train", data, *task, "--trees", 5, "--seed", 0, "--quiet", "-o", model) == 0
    assert run("predict", models[1], data, "-o", tmp_path / "p.csv") == 0
    predicted = np.array(read_rows(tmp_path / "p.csv"), dtype=float)[:, 0]
    np.testing.assert_array_equal(predicted, velmot.load(models[0]).predict(X))
    assert run("inspect", models[0]) == 0 and "task:     regression" in capsys.readouterr().out
    assert "--proba needs a classification model" in fails(capsys, "predict", models[0], data, "--proba", "-o", "x")


@pytest.mark.parametrize(
    "data, description, message",
    [
        (b"1,2,a\n3,a\n", None, "line 2: expected 3 fields, found 2"),
        (b"1,2,a\n1_5,2,b\n", None, "line 2, column 0: '1_5' is not a number"),
        (b"1,2,a\n1,2,\n", None, "line 2: the class (column 2) is empty"),
        (b"a,b,c\n", None, "holds a header but no rows"),
        (b"x,x,c\n1,2,a\n", None, "columns 0 and 1 are both named 'x'"),
        (b"1,2,a\n1," + b"2" * 140_000 + b",b\n", None, "line 2: field larger than field limit"),
        (b"1,2,a\n1,2,caf\xe9\n", None, "line 2: not UTF-8 text (byte 0xe9)"),
        (b"1,2,a\n", b"class-column 7\n", "line 1: class-column 7 is beyond the last column"),
        (b"1,2,a\n", b"\nignore 4294967296\n", "line 2: 4294967296 is larger than 2147483647"),
        (b"1,2,a\n", b"num-features 2\n", "line 1: num-features 2, but"),
        (b"1,2,a\n", b"# fine\n\nclass-columns 2\n", "error (line 3): invalid command: class-columns"),
        (b"1,2,a\n", b"label-type regression\n", "target 'a' is not a number (label-type regression)"),
        (b"1,2,a\n", b"label 0 a\nlabel 0 b\n", "line 2: class code 0 is already named 'a'"),
        (b"1,2,a\n", b"feature-name 0 caf\xe9\n", "line 1: not UTF-8 text"),
        (b"1,2,a\n", b"class-column 2\x00\n", "line 1: holds a NUL character"),
    ],
)
def test_bad_input_exits_2_with_one_line_and_writes_nothing(tmp_path, capsys, data, description, message):
    (tmp_path / "d.csv").write_bytes(data)
    (tmp_path / "d.desc").write_bytes(description or b"")
    argv = ["train", tmp_path / "d.csv", "--quiet", "-o", tmp_path / "m.npz"]
    assert message in fails(capsys, *argv, *["--description", tmp_path / "d.desc"] * bool(description))
    assert not (tmp_path / "m.npz").exists() and leftovers(tmp_path) == []


def test_missing_files_damaged_models_and_misuse_exit_2(iris_model, tmp_path, capsys):
    data, model = EXAMPLES / "iris.csv", tmp_path / "m.npz"
    for argv, message in [
        (["train", tmp_path / "none.csv", "-o", model], "data file not found"),
        (["train", data, "-o", tmp_path / "no" / "m.npz"], f"output folder {tmp_path / 'no'} does not exist"),
        (["train", data, "--trees", "abc", "-o", model], "'abc' is not a whole number"),
        (["inspect", tmp_path / "none.npz"], "model file not found"),
        (["inspect", data], "iris.csv is not a model file"),
    ]:
        assert message in fails(capsys, *argv)
    damaged, out = tmp_path / "damaged.npz", tmp_path / "out.csv"
    damaged.write_bytes(iris_model.read_bytes()[:200])
    assert "damaged.npz" in fails(capsys, "predict", damaged, *IRIS, "-o", out)
    assert not out.exists() and not model.exists()


@pytest.mark.parametrize(
    "option, parameter, value",
    [
        ("--trees", "n_estimators", 0),
        ("--jobs", "n_jobs", 0),
        ("--jobs", "n_jobs", 33),
        ("--seed", "random_state", -1),
        ("--max-features", "max_features", 1.5),
        ("--min-samples-leaf", "min_samples_leaf", 1.0),
    ],
)
def test_options_beyond_the_estimators_limits_are_refused_before_reading(tmp_path, capsys, option, parameter, value):
    # The command learns without the estimators, so it must refuse what they refuse.
    with pytest.raises(ValueError, match=parameter):
        RandomForestClassifier(**{parameter: value}).fit([[0.0], [1.0]], [0, 1])
    assert option in fails(capsys, "train", tmp_path / "none.csv", option, value, "-o", tmp_path / "m.npz")


@pytest.mark.parametrize("regression", [False, True])
def test_the_command_writes_the_model_file_the_estimators_write(tmp_path, regression):
    X = np.random.default_rng(5).normal(size=(120, 3)).round(3)
    X[::7, 1] = np.nan
    y = X[:, 0] * 2 + 1 if regression else (X[:, 0] > 0).astype(int)
    rows = [["a", "b", "c", "y"]] + [[*("" if np.isnan(v) else v for v in x), t] for x, t in zip(X, y)]
    options = ["--task", ["classification", "regression"][regression], "--trees", 7, "--seed", 4, "--max-depth", 6]
    data, model = write_csv(tmp_path / "d.csv", rows), tmp_path / "cli.npz"
    assert run("train", data, *options, "--quiet", "-o", model) == 0
    estimator = RandomForestRegressor(max_features=None) if regression else RandomForestClassifier()
    estimator.set_params(n_estimators=7, random_state=4, max_depth=6, n_jobs=-1)
    estimator.fit(X, y).save(tmp_path / "package.npz")
    package, package_metadata = read_model_file(tmp_path / "package.npz", ["classes", *estimator._model_entries()])
    command, command_metadata = read_model_file(model, list(package))
    assert {**command_metadata, "entries": None} == {**package_metadata, "entries": None}
    for name, array in package.items():
        assert command[name].dtype == array.dtype and np.array_equal(command[name], array, equal_nan=True), name
    assert run("predict", model, data, "-o", tmp_path / "p.csv") == 0
    predicted = np.array(read_rows(tmp_path / "p.csv"), dtype=float)[:, 0]
    np.testing.assert_array_equal(predicted, estimator.predict(X))


def test_outputs_keep_modes_and_never_replace_an_input(iris_model, tmp_path, capsys):
    copy = tmp_path / "iris.csv"
    copy.write_bytes((EXAMPLES / "iris.csv").read_bytes())
    assert "is also an input" in fails(capsys, "train", copy, "-o", copy)
    assert "is also an input" in fails(capsys, "predict", iris_model, *IRIS, "-o", iris_model)
    assert copy.read_bytes() == (EXAMPLES / "iris.csv").read_bytes()
    os.mkfifo(tmp_path / "fifo")  # renamed over, a device such as /dev/null would become a file
    assert "is not a regular file" in fails(capsys, "predict", iris_model, *IRIS, "-o", tmp_path / "fifo")
    # An existing file keeps its mode, and a link to it stays a link.
    real, out = tmp_path / "real.csv", tmp_path / "out.csv"
    real.write_text("")
    real.chmod(0o604)
    out.symlink_to(real)
    assert run("predict", iris_model, *IRIS, "-o", out) == 0
    assert out.is_symlink() and real.stat().st_mode & 0o777 == 0o604 and len(read_rows(real)) == 150


@pytest.mark.parametrize("signum", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_removes_the_temporary_file_with_one_line(iris_model, tmp_path, capsys, monkeypatch, signum):
    monkeypatch.setattr("velmot._cli_forest.LearntForest.predict", lambda self, X: os.kill(os.getpid(), signum))
    assert run("predict", iris_model, *IRIS, "-o", tmp_path / "out.csv") == 128 + signum
    assert len(capsys.readouterr().err.strip().splitlines()) == 1
    assert leftovers(tmp_path) == [] and not (tmp_path / "out.csv").exists()


def test_weights_oob_and_leaf_size_reach_the_forest(tmp_path, capsys):
    rows = read_rows(EXAMPLES / "iris.csv")
    data = write_csv(
        tmp_path / "w.csv", [r[:5] + ["weight" if i == 0 else str(i % 3)] + r[5:] for i, r in enumerate(rows)]
    )
    options = ["--oob", "--class-weight", "balanced", "--min-samples-leaf", 3, "--trees", 40, "--seed", 1, "--quiet"]
    for column in ("weight", 5):
        assert run("train", data, "--weight-column", column, *options, "-o", tmp_path / f"{column}.npz") == 0
        assert capsys.readouterr().out.startswith("out-of-bag accuracy: 0.9")
    table = np.array(read_rows(data)[1:])
    expected = RandomForestClassifier(n_estimators=40, random_state=1, min_samples_leaf=3, class_weight="balanced")
    expected.fit(table[:, :5].astype(float), table[:, 6], sample_weight=table[:, 5].astype(float))
    for column in ("weight", 5):
        model = cli._load_model(tmp_path / f"{column}.npz")[0]
        assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(model.trees_, expected.trees_))
    assert run("predict", tmp_path / "weight.npz", data, "--weight-column", "weight", "-o", tmp_path / "p.csv") == 0
    assert "not a feature column" in fails(capsys, "train", data, "--weight-column", 6, "-o", tmp_path / "m.npz")
    assert "names no column" in fails(capsys, "train", data, "--weight-column", "mass", "-o", tmp_path / "m.npz")


def test_inspect_plots_the_importances_or_says_what_is_missing(iris_model, tmp_path, capsys, monkeypatch):
    assert run("inspect", iris_model, "--plot", tmp_path / "i.png") == 0
    assert (tmp_path / "i.png").read_bytes().startswith(b"\x89PNG")
    assert "must name a picture format" in fails(capsys, "inspect", iris_model, "--plot", tmp_path / "i.txt")
    monkeypatch.setitem(sys.modules, "matplotlib.figure", None)
    assert "pip install 'velmot[plot]'" in fails(capsys, "inspect", iris_model, "--plot", tmp_path / "j.png")
    assert leftovers(tmp_path) == [] and not (tmp_path / "j.png").exists()
