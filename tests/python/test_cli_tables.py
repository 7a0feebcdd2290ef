"""The command line's data files through pyarrow: CSV and Parquet."""

import subprocess
import sys

import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq
import pytest

from test_cli import fails, leftovers, run
from velmot import _reading_process, _tables, load

HEADER = b"a,b,c,kind\n"


def rows(n=300):
    rng = np.random.default_rng(5)
    X = rng.normal(size=(n, 3)).round(3)
    kinds = np.where(X[:, 0] + X[:, 1] > 0, '" up"', "down")  # a quoted class with a space: stripped
    lines = [f"{x[0]},{'NA' if i % 17 == 0 else x[1]},{x[2]},{k}" for i, (x, k) in enumerate(zip(X, kinds))]
    return [line.encode() for line in lines]


def as_parquet(csv_path, target):
    import pyarrow.csv as pacsv

    table = pacsv.read_csv(csv_path, convert_options=pacsv.ConvertOptions(null_values=["NA"]))
    if target.suffix:
        pq.write_table(table, target)
    else:  # a folder of files, rows in the files' name order
        target.mkdir()
        for k, start in enumerate(range(0, table.num_rows, 128)):
            pq.write_table(table.slice(start, 128), target / f"part-{k}.parquet")
    return target


@pytest.mark.parametrize("variant", ["bom crlf trailing", "parquet", "parquet folder"])
def test_csv_and_parquet_give_the_same_forest_as_the_row_reader(tmp_path, monkeypatch, variant):
    plain = tmp_path / "plain.csv"
    plain.write_bytes(HEADER + b"\n".join(rows()) + b"\n")
    expected, model = tmp_path / "expected.npz", tmp_path / "m.npz"
    with monkeypatch.context() as patch:  # the row reader alone
        patch.setattr(_tables.CsvTable, "training_data", _tables.CsvTable._read_rows)
        assert run("train", plain, "--trees", 10, "--seed", 4, "-o", expected) == 0
    if variant == "bom crlf trailing":
        data = tmp_path / "d.csv"
        data.write_bytes(b"\xef\xbb\xbf" + HEADER.replace(b"\n", b"\r\n") + b"\r\n".join(rows()) + b"\r\n\r\n")
    else:
        data = as_parquet(plain, tmp_path / ("d.parquet" if variant == "parquet" else "d"))
    # Well-formed files never need the row reader.
    monkeypatch.setattr(_tables.CsvTable, "_read_rows", None)
    assert run("train", data, "--trees", 10, "--seed", 4, "-o", model) == 0
    np.testing.assert_equal(load(model).nodes_.as_dict(), load(expected).nodes_.as_dict())
    out, reference = tmp_path / "o.csv", tmp_path / "r.csv"
    assert run("predict", model, data, "--proba", "-o", out) == 0
    assert run("predict", expected, plain, "--proba", "-o", reference) == 0
    assert out.read_text() == reference.read_text()


@pytest.mark.parametrize("suffix", [".csv", ".parquet"])
def test_training_and_prediction_import_neither_scikit_learn_nor_pandas(tmp_path, suffix):
    data, model = tmp_path / "d.csv", tmp_path / "m.npz"
    data.write_bytes(HEADER + b"\n".join(rows()) + b"\n")
    data = data if suffix == ".csv" else as_parquet(data, tmp_path / "d.parquet")
    heavy = "{m.split('.')[0] for m in sys.modules} & {'sklearn', 'scipy', 'pandas', 'tqdm', 'matplotlib', 'onnx'}"
    code = (
        f"import sys; from velmot.cli import main; [main(a.split('|')) for a in sys.argv[1:]]; print(sorted({heavy}))"
    )
    commands = (["train", data, "--trees", 3, "-o", model], ["predict", model, data, "-o", tmp_path / "p.csv"])
    result = subprocess.run(
        [sys.executable, "-c", code, *("|".join(map(str, c)) for c in commands)], capture_output=True, text=True
    )
    assert result.stdout == "[]\n", result.stderr


@pytest.mark.parametrize(
    "late_row, message",
    [
        (b"1,-nan,2,up", None),  # pyarrow reads it otherwise: the row reader goes on from there
        (b"1,2,up", "line 702: expected 4 fields, found 3"),
        (b"1,nan(1),2,up", "line 702, column 1: 'nan(1)' is not a number"),
        (b"1,1e999,2,up", "line 702, column 1: infinite values are not allowed"),
    ],
)
def test_prediction_streams_and_a_late_bad_row_names_its_line(tmp_path, capsys, monkeypatch, late_row, message):
    monkeypatch.setattr(_tables, "_BATCH_BYTES", 4096)
    body = rows(1000)
    train, model = tmp_path / "t.csv", tmp_path / "m.npz"
    train.write_bytes(HEADER + b"\n".join(body))
    assert run("train", train, "--trees", 5, "--seed", 1, "-o", model) == 0
    data, out, reference = tmp_path / "d.csv", tmp_path / "o.csv", tmp_path / "r.csv"
    data.write_bytes(HEADER + b"\n".join(body[:700] + [late_row] + body[701:]))
    if message:
        assert message in fails(capsys, "predict", model, data, "-o", out)
        assert not out.exists() and leftovers(tmp_path) == []
    else:
        assert run("predict", model, data, "--proba", "-o", out) == 0
        data.write_bytes(data.read_bytes().replace(b"-nan", b"nan"))
        assert run("predict", model, data, "--proba", "-o", reference) == 0
        assert out.read_text() == reference.read_text()


@pytest.mark.parametrize(
    "columns, message",
    [
        ({"a": [1.0, np.inf], "y": ["u", "v"]}, "row 2, column 0: infinite values are not allowed"),
        ({"a": ["1", "2"], "y": ["u", "v"]}, "column 0 ('a') holds string, not numbers"),
        ({"a": [1.0, 2.0], "y": ["u", None]}, "row 2: the class (column 1) is empty"),
    ],
)
def test_bad_parquet_exits_2_with_one_line(tmp_path, capsys, columns, message):
    pq.write_table(pa.table(columns), tmp_path / "d.pq")
    assert message in fails(capsys, "train", tmp_path / "d.pq", "-o", tmp_path / "m.npz")
    assert not (tmp_path / "m.npz").exists()


@pytest.mark.parametrize("apart", [True, False])
def test_reading_in_a_child_process_or_not_gives_the_same_forest_and_errors(tmp_path, capsys, monkeypatch, apart):
    monkeypatch.setattr(_reading_process, "can_read_apart", lambda: apart)
    rng = np.random.default_rng(3)
    a, b, holes = (
        rng.integers(0, 50, 200, dtype=np.int32),
        rng.integers(0, 50, 200, dtype=np.int32),
        np.arange(200) % 7 == 0,
    )
    y = np.where(a > b, "u", "v")
    # Nulls in the second int32 column turn the matrix read so far into float64.
    pq.write_table(pa.table({"a": a, "b": pa.array(b, mask=holes), "y": y}), tmp_path / "ints.pq")
    pq.write_table(pa.table({"a": a * 1.0, "b": np.where(holes, np.nan, b), "y": y}), tmp_path / "floats.pq")
    for name in ("ints", "floats"):
        assert run("train", tmp_path / f"{name}.pq", "--trees", 5, "--seed", 2, "-o", tmp_path / f"{name}.npz") == 0
    np.testing.assert_equal(
        load(tmp_path / "ints.npz").nodes_.as_dict(), load(tmp_path / "floats.npz").nodes_.as_dict()
    )
    (tmp_path / "bad.csv").write_bytes(HEADER + b"\n".join(rows(5) + [b"1,2,up"]))
    assert "line 7: expected 4 fields, found 3" in fails(
        capsys, "train", tmp_path / "bad.csv", "-o", tmp_path / "m.npz"
    )
    if apart:  # the reading's libraries stay out of the training process
        code = "import sys; from velmot.cli import main; main(sys.argv[1:]); print('pyarrow' in sys.modules)"
        argv = ["train", tmp_path / "ints.pq", "--quiet", "-o", tmp_path / "m.npz"]
        assert (
            subprocess.run([sys.executable, "-c", code, *map(str, argv)], capture_output=True, text=True).stdout
            == "False\n"
        )
