"""The velmot command: train, inspect and predict from CSV files."""

import csv
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from velmot import cli

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
IRIS = [EXAMPLES / "iris.csv", "--description", EXAMPLES / "iris.desc"]


def run(*argv):
    return cli.main([str(a) for a in argv])


def fails(capsys, *argv):
    """Runs a command that must fail: exit status 2 and a single line of error, returned."""
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


@pytest.fixture
def iris_model(tmp_path):
    model = tmp_path / "iris.npz"
    assert run("train", *IRIS, "--trees", 30, "--seed", 3, "--quiet", "-o", model) == 0
    return model


def test_train_inspect_predict_on_the_shipped_example(iris_model, tmp_path, capsys, monkeypatch):
    assert run("inspect", iris_model) == 0
    summary = capsys.readouterr().out
    assert "classes:  setosa, versicolor, virginica" in summary
    assert "features: 4" in summary and "trees:    30" in summary
    # The ignored id column is not a feature; names come from the description.
    table = summary.split("importance  feature\n")[1].splitlines()
    assert sorted(line.split()[1] for line in table) == ["petal_length", "petal_width", "sepal_length", "sepal_width"]

    out = tmp_path / "out.csv"
    assert run("predict", iris_model, *IRIS, "-o", out) == 0
    truth = [row[5] for row in read_rows(EXAMPLES / "iris.csv")[1:]]
    predicted = [row[0] for row in read_rows(out)]
    assert len(predicted) == 150
    assert np.mean(np.array(predicted) == np.array(truth)) > 0.95

    proba, chunked = tmp_path / "proba.csv", tmp_path / "chunked.csv"
    assert run("predict", iris_model, *IRIS, "--proba", "-o", proba) == 0
    rows = read_rows(proba)
    assert rows[0] == ["setosa", "versicolor", "virginica"]
    assert np.allclose(np.array(rows[1:], dtype=float).sum(axis=1), 1.0)
    # Prediction in chunks writes what prediction whole does.
    monkeypatch.setattr(cli, "PREDICT_CHUNK_ROWS", 7)
    assert run("predict", iris_model, *IRIS, "--proba", "-o", chunked) == 0
    assert chunked.read_text() == proba.read_text()

    result = subprocess.run([sys.executable, "-m", "velmot", "inspect", str(iris_model)],
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert result.stdout == summary


def test_class_column_ignore_and_label_codes_are_honoured(tmp_path, capsys):
    rng = np.random.default_rng(0)
    y = rng.integers(0, 2, 200)
    # Column 0 leaks the class but is ignored; column 2 holds the class.
    # Codes put "zebra" (0) before "apple" (1), unlike alphabetical order.
    rows = [[c, f"{c + rng.normal(0, 0.3):.4f}", ["zebra", "apple"][c], f"{rng.normal():.4f}"] for c in y]
    data, description, model = write_csv(tmp_path / "data.csv", rows), tmp_path / "data.desc", tmp_path / "m.npz"
    description.write_text("class-column 2\nignore 0\nlabel 0 zebra\nlabel 1 apple\nfeature-name 3 noise\n")
    assert run("train", data, "--description", description, "--trees", 20, "--seed", 1, "--quiet", "-o", model) == 0
    assert run("inspect", model) == 0
    summary = capsys.readouterr().out
    assert "features: 2" in summary and "classes:  zebra, apple" in summary
    assert "column1" in summary and "noise" in summary
    proba = tmp_path / "p.csv"
    assert run("predict", model, data, "--description", description, "--proba", "-o", proba) == 0
    assert read_rows(proba)[0] == ["zebra", "apple"]


def test_without_description_the_last_column_is_the_class(tmp_path):
    rows = [[i % 5, (i * 7) % 3, "odd" if i % 2 else "even"] for i in range(60)]
    data = write_csv(tmp_path / "d.csv", [["a", "b", "parity"]] + rows)
    model = tmp_path / "m.npz"
    assert run("train", data, "--trees", 10, "--seed", 2, "--quiet", "-o", model) == 0
    # Rows to predict may come without the class column.
    features_only = write_csv(tmp_path / "f.csv", [row[:2] for row in rows])
    out = tmp_path / "o.csv"
    assert run("predict", model, features_only, "-o", out) == 0
    assert {row[0] for row in read_rows(out)} <= {"odd", "even"}
    assert len(read_rows(out)) == 60


@pytest.mark.parametrize(
    "rows, description, message",
    [
        ([["1", "2", "a"], ["3", "a"]], None, "line 2: expected 3 fields, found 2"),
        ([["1", "2", "a"], ["3", "x", "b"]], None, "line 2, column 1: 'x' is not a number"),
        ([["1", "2", "a"]], "class-column 7\n", "class column 7 is out of range"),
        ([["1", "2", "a"]], "num-features 2\n# fine\n\nclass-columns 2\n", "error (line 4): invalid command: class-columns"),
        ([["1", "2", "c"]], "label 0 a\nlabel 1 b\n", "class 'c' is not named in the description"),
    ],
)
def test_bad_input_exits_2_with_one_line_and_writes_nothing(tmp_path, capsys, rows, description, message):
    data = write_csv(tmp_path / "d.csv", rows)
    argv = ["train", data, "--quiet", "-o", tmp_path / "m.npz"]
    if description is not None:
        (tmp_path / "d.desc").write_text(description)
        argv[2:2] = ["--description", tmp_path / "d.desc"]
    assert message in fails(capsys, *argv)
    assert not (tmp_path / "m.npz").exists()
    assert [p.name for p in tmp_path.iterdir() if p.name.startswith(".velmot-")] == []


def test_missing_files_and_damaged_models_exit_2(iris_model, tmp_path, capsys):
    assert "data file not found" in fails(capsys, "train", tmp_path / "none.csv", "-o", tmp_path / "m.npz")
    assert "description file not found" in fails(
        capsys, "train", EXAMPLES / "iris.csv", "--description", tmp_path / "none.desc", "-o", tmp_path / "m.npz")
    assert "model file not found" in fails(capsys, "inspect", tmp_path / "none.npz")

    damaged = tmp_path / "damaged.npz"
    damaged.write_bytes(iris_model.read_bytes()[:200])
    out = tmp_path / "out.csv"
    assert "damaged.npz" in fails(capsys, "predict", damaged, *IRIS, "-o", out)
    assert not out.exists()
