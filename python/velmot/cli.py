"""The ``velmot`` command: train, predict and inspect from CSV or Parquet files.

    velmot train DATA.csv [--description DATA.desc] [options] -o MODEL.npz
    velmot predict MODEL.npz DATA.csv [--description DATA.desc] [--proba] -o OUT.csv
    velmot inspect MODEL.npz [--plot IMPORTANCES.png]
    velmot export MODEL.npz MODEL.onnx

Data files are read by ``_tables``: a CSV file, or a Parquet file (.parquet,
.pq) or folder of them, whose column names serve as its header.

A description file (read by the library's own reader) says which CSV column
holds the class (``class-column``), whether it holds real targets
(``label-type regression``: a regression forest is learnt; without a
description, ``--task regression`` asks for one), which columns to drop (``ignore``), the
names of features (``feature-name``, by CSV column number) and of classes
(``label CODE NAME``). Without one, the last column is the class and every
other column a feature. A header line is optional: a first line with a
feature field that is neither a number nor a missing value is taken as one.

Prediction finds the model's features by name when the model knows their
names and the file has a header, whatever the order of its columns;
otherwise by position, and the count must fit.

Every failure ends with exit status 2 and one line on standard error, and
writes nothing: outputs go to a temporary file that is renamed into place
only at the end, and removed on any failure or signal.
"""

import argparse
import csv
import io
import os
import signal
import sys
import threading

import numpy as np

from ._description import read_layout
from ._settings import MAX_INT32, POOL_SIZE

EXIT_FAILURE = 2
PREDICT_CHUNK_ROWS = 10_000
# Signals that stop the command like Ctrl-C does, cleaning up first.
_STOP_SIGNALS = ("SIGTERM", "SIGHUP")


class CommandError(Exception):
    """A failure the user can fix; printed as one line, exit status 2."""


class Stopped(BaseException):
    """A stop signal, raised where the program is so that cleanup runs."""

    def __init__(self, signum):
        super().__init__(signum)
        self.signum = signum


def _output_file(output, *inputs):
    """The file to write for an output path, refusing before any work an
    output that would replace an input, that has no folder to go in, or
    that is not a file: the output is renamed into place, which would put a
    regular file where a device such as /dev/null or a folder stands. An
    output that is a symbolic link is written through it, as a plain write
    would."""
    if not output:
        raise CommandError("the output path is empty")
    target = os.path.realpath(output)
    folder = os.path.dirname(target)
    if not os.path.isdir(folder):
        raise CommandError(f"the output folder {folder} does not exist")
    if os.path.exists(target) and not os.path.isfile(target):
        raise CommandError(f"the output {output} is not a regular file: name a file")
    for path in inputs:
        if path is not None and _same_file(output, path):
            raise CommandError(f"the output {output} is also an input: write it elsewhere")
    return target


def _same_file(a, b):
    try:
        return os.path.samefile(a, b)
    except OSError:
        return os.path.realpath(a) == os.path.realpath(b)


def _open_data(path):
    from ._tables import open_table

    if not os.path.exists(path):
        raise CommandError(f"data file not found: {path}")
    return open_table(path)


def _encode_classes(fields, layout, path):
    """Class codes for the class fields, and the name of each code."""
    if layout.class_names:
        code_of = {name: code for code, name in layout.class_names.items()}
        codes = np.empty(len(fields), dtype=np.int64)
        for i, text in enumerate(fields):
            if text in code_of:
                codes[i] = code_of[text]
            elif text.isascii() and text.isdigit() and int(text) in layout.class_names:
                codes[i] = int(text)
            else:
                known = ", ".join(sorted(code_of))
                raise CommandError(f"{path}: class {text!r} is not named in the description (it names {known})")
        return codes, dict(layout.class_names)
    names = sorted(set(fields))
    code_of = {name: code for code, name in enumerate(names)}
    return np.array([code_of[text] for text in fields], dtype=np.int64), dict(enumerate(names))


# ---------------------------------------------------------------------------
# Model files

# A model file is the package's own forest file (velmot.load reads it) with
# three more entries: the name of each feature ("" where the training file
# gave none), the class name of each class code, and the header name of the
# class column ("" without a header).
_FEATURE_NAMES_KEY = "command_line_feature_names"
_CLASS_NAMES_KEY = "command_line_class_names"
_CLASS_COLUMN_KEY = "command_line_class_column"
_ZIP_SIGNATURE = b"PK"


def _model_entries(feature_names, class_names, class_column_name, codes):
    return {
        _FEATURE_NAMES_KEY: np.array(feature_names, dtype=str),
        _CLASS_NAMES_KEY: np.array([class_names[int(code)] for code in codes], dtype=str),
        _CLASS_COLUMN_KEY: np.array(class_column_name, dtype=str),
    }


def _class_codes(model):
    """The class codes of an estimator or LearntForest; none for real targets."""
    codes = getattr(model, "classes_", None)
    return () if codes is None else codes


def _load_model(path, predicting=False):
    """(model, feature names, {class code: name}, class column name); for
    predicting, a forest that loads without the estimator classes."""
    if not os.path.isfile(path):
        raise CommandError(f"model file not found: {path}")
    with open(path, "rb") as file:
        if file.read(len(_ZIP_SIGNATURE)) != _ZIP_SIGNATURE:
            raise CommandError(f"{path} is not a model file (velmot train writes them)")
    if predicting:
        from ._cli_forest import load as load_forest
    else:
        from ._persistence import load_forest
    try:
        model, extra = load_forest(path, (_FEATURE_NAMES_KEY, _CLASS_NAMES_KEY, _CLASS_COLUMN_KEY))
    except (ValueError, RecursionError) as error:
        raise CommandError(str(error) if path in str(error) else f"{path}: {error}") from None
    shapes = {
        _FEATURE_NAMES_KEY: (model.n_features_in_,),
        _CLASS_NAMES_KEY: (len(_class_codes(model)),),
        _CLASS_COLUMN_KEY: (),
    }
    for key, shape in shapes.items():
        if extra[key].dtype.kind != "U" or extra[key].shape != shape:
            raise CommandError(f"{path}: damaged model file ({key} has the wrong shape or type)")
    class_names = dict(zip((int(code) for code in _class_codes(model)), extra[_CLASS_NAMES_KEY].tolist()))
    return model, extra[_FEATURE_NAMES_KEY].tolist(), class_names, str(extra[_CLASS_COLUMN_KEY])


# ---------------------------------------------------------------------------
# Commands


def train(args):
    from ._cli_forest import learn, save
    from ._reading_process import read_apart

    output = _output_file(args.output, args.data, args.description)
    layout = read_layout(args.description)
    if layout.task and args.task and layout.task != args.task:
        raise CommandError(f"--task {args.task}, but {args.description} gives label-type {layout.task}")
    regression = (layout.task or args.task) == "regression"
    if regression and args.class_weight:
        raise CommandError("--class-weight weighs classes; a regression forest has none")
    params = {
        "n_estimators": args.trees,
        "criterion": args.criterion or ("squared_error" if regression else "gini"),
        "max_features": _max_features(args.max_features or ("all" if regression else "sqrt")),
        "max_depth": args.max_depth,
        "n_jobs": args.jobs,
        "random_state": args.seed,
        "verbose": 0 if args.quiet or not sys.stderr.isatty() else 1,
        "min_samples_leaf": _min_samples_leaf(args.min_samples_leaf),
        "oob_score": args.oob,
        **({} if regression else {"class_weight": args.class_weight}),
    }
    # Read in a child process: the reading's libraries and leftovers never sit beside the fit.
    X, (classes, rows_class, feature_names, class_column_name, weight_column) = read_apart(
        lambda empty: _read_training_file(args.data, layout, args.weight_column, empty)
    )
    if not len(X):
        raise CommandError(f"{args.data}: the file holds a header but no rows")
    X, weights = (X, None) if weight_column is None else (X[:, :-1], X[:, -1])
    codes, class_names = _targets(classes, args.data) if regression else _encode_classes(classes, layout, args.data)
    y = codes[rows_class]
    n_rows = X.shape[0]
    try:
        forest = learn(X, y, params, regression=regression, sample_weight=weights)
    except (RuntimeError, MemoryError) as error:
        raise CommandError(f"cannot learn {args.trees} trees: {error}") from None
    # The matrix, learnt on in place, goes before the model file's copies of the forest are made.
    del X, weights
    save(forest, output, _model_entries(feature_names, class_names, class_column_name, _class_codes(forest)))
    print(
        f"learnt {args.trees} trees on {n_rows} rows and {forest.n_features_in_} features; saved {args.output}",
        file=sys.stderr,
    )
    if args.oob:
        print(f"out-of-bag {'R^2' if regression else 'accuracy'}: {forest.oob_score_:.4f}")


def _read_training_file(path, layout, weight_column_text, empty):
    """(features with the weight column last, if any, (class texts, each
    row's index into them, feature names, class column name, weight column));
    ``empty(shape, dtype)`` makes the matrix."""
    with _open_data(path) as rows:
        layout.check_columns(rows.n_columns, path)
        class_column = rows.n_columns - 1 if layout.class_column is None else layout.class_column
        weight_column = _set_weight_column_aside(weight_column_text, layout, rows, class_column)
        columns = _feature_columns(layout, rows, class_column)
        header = rows.take_header(columns)
        feature_names = [layout.feature_names.get(c, header[c].strip() if header else "") for c in columns]
        class_column_name = header[class_column].strip() if header else ""
        _refuse_repeated_names([*feature_names, class_column_name], [*columns, class_column], path)
        read = columns + ([] if weight_column is None else [weight_column])
        X, classes, rows_class = rows.training_data(read, class_column, empty)
    return X, (classes, rows_class, feature_names, class_column_name, weight_column)


def _set_weight_column_aside(text, layout, rows, class_column):
    """The CSV column of --weight-column (a column number, or a name in the
    description's feature names or the header), now left out of the
    features; None without the option."""
    if text is None:
        return None
    if text.isascii() and text.isdigit():
        column = int(text)
    else:
        names = {
            **{field.strip(): c for c, field in enumerate(rows.first_row)},
            **{n: c for c, n in layout.feature_names.items()},
        }
        if text not in names:
            raise CommandError(f"--weight-column {text!r} names no column of {rows.path}")
        column = names[text]
    if column >= rows.n_columns or column == class_column or column in layout.ignored:
        raise CommandError(
            f"--weight-column {text} is not a feature column of {rows.path} (it is the class column, ignored, or "
            f"beyond its {rows.n_columns} columns)"
        )
    layout.ignored.add(column)
    return column


def _targets(fields, path):
    """Real targets of the class column's fields, and no class names."""
    try:
        return np.array([float(text) for text in fields]), {}
    except ValueError:
        bad = next(text for text in fields if not _is_number(text))
        raise CommandError(f"{path}: target {bad!r} is not a number (label-type regression)") from None


def _is_number(text):
    try:
        float(text)
    except ValueError:
        return False
    return True


def _feature_columns(layout, rows, class_column):
    columns = layout.feature_columns(rows.n_columns, class_column)
    if not columns:
        raise CommandError(f"{rows.path}: no feature columns are left")
    return columns


def _refuse_repeated_names(names, columns, path):
    """Prediction finds features and the class by name, so a name may stand
    for one column only."""
    first = {}
    for name, column in zip(names, columns):
        if name and first.setdefault(name, column) != column:
            raise CommandError(f"{path}: columns {first[name]} and {column} are both named {name!r}")


def _min_samples_leaf(text):
    if text == "pairs":
        return text
    value = _number(text)
    if value is None or not (value >= 1 if isinstance(value, int) else 0 < value < 1):
        raise CommandError(f"--min-samples-leaf must be a count from 1, a fraction in (0, 1) or pairs, not {text!r}")
    return value


def _max_features(text):
    if text in ("sqrt", "log2"):
        return text
    if text in ("all", "None", "none"):
        return None
    value = _number(text)
    if value is None or not (value >= 1 if isinstance(value, int) else 0 < value <= 1):
        raise CommandError(
            f"--max-features must be sqrt, log2, all, a count from 1 or a fraction in (0, 1], not {text!r}"
        )
    return value


def _number(text):
    """The int or else the float that text spells, or None."""
    for kind in (int, float):
        try:
            return kind(text)
        except ValueError:
            pass
    return None


def _whole_number(least, most=None):
    """An argparse type: a whole number from least to most (None: no bound).
    The estimators' limits are checked here, before any data is read."""

    def parse(text):
        try:
            value = int(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"{text!r} is not a whole number") from None
        if value < least or (most is not None and value > most):
            raise argparse.ArgumentTypeError(f"{value} is not from {least} to {'any' if most is None else most}")
        return value

    return parse


def _threads(text):
    value = _whole_number(-(2**63), POOL_SIZE)(text)
    if value == 0:
        raise argparse.ArgumentTypeError(f"0 threads: give 1 to {POOL_SIZE}, or -1 for all cores, -2 for all but one")
    return value


def predict(args):
    from ._files import atomic_write

    output = _output_file(args.output, args.model, args.data, args.description)
    model, feature_names, class_names, class_column_name = _load_model(args.model, predicting=True)
    layout = read_layout(args.description)
    classes = [class_names[int(code)] for code in _class_codes(model)]
    if args.proba and not classes:
        raise CommandError(f"--proba needs a classification model; {args.model} holds a regression forest")

    # Each class's output line, written once: a batch's lines are then picked
    # by code instead of formatted row by row.
    class_lines = np.full(max(class_names, default=0) + 1, "", dtype=object)
    for code, name in class_names.items():
        class_lines[code] = _csv_line(name)

    def write(temp):
        with _open_data(args.data) as rows, open(temp, "w", newline="", encoding="utf-8") as out:
            _set_weight_column_aside(args.weight_column, layout, rows, layout.class_column)
            columns = _columns_to_predict(rows, layout, feature_names, class_column_name)
            writer = csv.writer(out)
            if args.proba:
                writer.writerow(classes)
            for features in rows.feature_batches(columns, PREDICT_CHUNK_ROWS):
                if args.proba:
                    writer.writerows(model.predict_proba(features).tolist())
                elif classes:
                    out.write("".join(class_lines[model.predict(features).astype(np.intp)]))
                else:  # Python writes floats in the shortest text that reads back exactly
                    writer.writerows([[value] for value in model.predict(features).tolist()])

    atomic_write(output, write)


def _csv_line(field):
    line = io.StringIO()
    csv.writer(line).writerow([field])
    return line.getvalue()


def _columns_to_predict(rows, layout, feature_names, class_column_name):
    """The CSV column of each of the model's features: by name when the
    model knows every name and the file has a header, else by position."""
    layout.check_columns(rows.n_columns, rows.path)
    n_features = len(feature_names)
    class_column = layout.class_column
    if class_column is None and rows.n_columns != n_features:
        class_column = rows.n_columns - 1  # rows to predict may come without their class
    header = rows.take_header(layout.feature_columns(rows.n_columns, class_column))
    if header is None or not all(feature_names):
        columns = _feature_columns(layout, rows, class_column)
        if len(columns) != n_features:
            raise CommandError(f"{rows.path}: {len(columns)} feature columns, but the model was learnt on {n_features}")
        return columns
    names = [layout.feature_names.get(c, field.strip()) for c, field in enumerate(header)]
    if layout.class_column is None:
        class_column = names.index(class_column_name) if class_column_name in names else None
    candidates = layout.feature_columns(rows.n_columns, class_column)
    _refuse_repeated_names([names[c] for c in candidates], candidates, rows.path)
    column_of = {names[c]: c for c in candidates}
    missing = [name for name in feature_names if name not in column_of]
    unknown = sorted(set(column_of) - set(feature_names))
    if missing or unknown:
        problems = [
            f"{what} {', '.join(map(repr, found))}"
            for what, found in (("lacks", missing), ("has unknown columns", unknown))
            if found
        ]
        hint = "" if layout.path else " (pass the description the model was trained with, if it had one)"
        raise CommandError(f"{rows.path} does not match the model's features: it {' and '.join(problems)}{hint}")
    return [column_of[name] for name in feature_names]


def inspect(args):
    output = None if args.plot is None else _output_file(args.plot, args.model)
    model, feature_names, class_names, _ = _load_model(args.model)
    trees = model.trees_
    nodes = [tree.shape[1] for tree in trees]
    depths = [_depth(tree) for tree in trees]
    print(f"task:     {model._TASK}")
    if class_names:
        print(f"classes:  {', '.join(class_names[int(code)] for code in model.classes_)}")
    print(f"features: {model.n_features_in_}")
    print(f"trees:    {len(trees)}")
    print(f"nodes:    {sum(nodes)} in all, {min(nodes)} to {max(nodes)} per tree")
    print(f"depth:    {min(depths)} to {max(depths)}")
    print("\nimportance  feature")
    importances = model.feature_importances_
    names = [name or f"feature {j} (unnamed)" for j, name in enumerate(feature_names)]
    for j in sorted(range(len(importances)), key=lambda j: (-importances[j], j)):
        print(f"{importances[j]:10.4f}  {names[j]}")
    if output is not None:
        from ._plots import plot_importances

        try:
            plot_importances(output, importances, names)
        except ImportError as error:
            raise CommandError(str(error)) from None


def export(args):
    from ._onnx import write_onnx

    output = _output_file(args.output, args.model)
    model, _, class_names, _ = _load_model(args.model)
    try:
        write_onnx(model, output, [class_names[int(code)] for code in _class_codes(model)] or None)
    except ImportError as error:
        raise CommandError(str(error)) from None


def _depth(tree):
    """Depth of a tree array (root at depth 0)."""
    left, right = tree[0].astype(np.int64), tree[1].astype(np.int64)
    depth, level = 0, [0]
    while True:
        children = [c for node in level for c in (left[node], right[node]) if c >= 0]
        if not children:
            return depth
        depth += 1
        level = children


class _Parser(argparse.ArgumentParser):
    """Usage mistakes keep the one-line error promise too."""

    def error(self, message):
        self.exit(EXIT_FAILURE, f"velmot: error: {message} (see {self.prog} --help)\n")


def build_parser():
    parser = _Parser(prog="velmot", description="Random forests from CSV files.")
    commands = parser.add_subparsers(dest="command", required=True)

    p = commands.add_parser("train", help="learn a forest from a CSV file and save it")
    p.add_argument("data", help="CSV file, Parquet file or folder of training rows")
    p.add_argument("--description", help="description file naming the class column, ignored columns and names")
    p.add_argument("--trees", type=_whole_number(1, MAX_INT32), default=100, help="number of trees (default 100)")
    p.add_argument("--task", choices=["classification", "regression"], help="without a description's label-type")
    p.add_argument("--criterion", choices=["gini", "entropy", "log_loss", "gain_ratio", "squared_error"])
    p.add_argument(
        "--max-features",
        help="features tried per split: sqrt, log2, all, N or a fraction (default sqrt; all for regression)",
    )
    p.add_argument("--max-depth", type=_whole_number(1), default=None, help="depth limit (default: none)")
    p.add_argument("--jobs", type=_threads, default=-1, help="threads (default -1: all cores)")
    p.add_argument("--seed", type=_whole_number(0, 2**32 - 1), default=None, help="seed, for a reproducible forest")
    p.add_argument("--quiet", action="store_true", help="no progress bar (shown only on a terminal)")
    p.add_argument("--min-samples-leaf", default="1", help="fewest in-bag samples per leaf: N, a fraction or pairs")
    p.add_argument("--class-weight", choices=["balanced"], help="weigh classes inversely to their frequency")
    p.add_argument("--weight-column", help="column of sample weights (a column number or name), not a feature")
    p.add_argument("--oob", action="store_true", help="print the out-of-bag accuracy (R^2) after training")
    p.add_argument("-o", "--output", required=True, help="model file to write (.npz)")
    p.set_defaults(run=train)

    p = commands.add_parser("predict", help="predict the classes of a CSV file's rows")
    p.add_argument("model", help="model file written by velmot train")
    p.add_argument("data", help="CSV file, Parquet file or folder of rows to predict")
    p.add_argument("--description", help="description file of the CSV file")
    p.add_argument("--proba", action="store_true", help="write one probability per class instead of the class")
    p.add_argument("--weight-column", help="column to leave out, as in velmot train")
    p.add_argument("-o", "--output", required=True, help="CSV file to write")
    p.set_defaults(run=predict)

    p = commands.add_parser("inspect", help="summarise a model file")
    p.add_argument("model", help="model file written by velmot train")
    p.add_argument("--plot", help="also draw the feature importances to this file (.png, .svg, .pdf)")
    p.set_defaults(run=inspect)

    p = commands.add_parser("export", help="write a model file as an ONNX graph")
    p.add_argument("model", help="model file written by velmot train")
    p.add_argument("output", help="ONNX file to write (.onnx); its label output gives the class names")
    p.set_defaults(run=export)
    return parser


def _stop(signum, frame):
    raise Stopped(signum)


def main(argv=None):
    args = build_parser().parse_args(argv)
    handlers = {}
    # Only the main thread may set handlers; elsewhere signals keep theirs.
    if threading.current_thread() is threading.main_thread():
        for name in _STOP_SIGNALS:
            if hasattr(signal, name):
                handlers[name] = signal.signal(getattr(signal, name), _stop)
    try:
        args.run(args)
    except BrokenPipeError:
        # The reader of standard output has gone (velmot inspect | head).
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return EXIT_FAILURE
    except (CommandError, ValueError, TypeError, OSError) as error:
        # ValueError and TypeError are the package's and the readers' own
        # account of bad input; OSError a file that cannot be read or written.
        print(f"velmot: error: {error}", file=sys.stderr)
        return EXIT_FAILURE
    except KeyboardInterrupt:
        print("velmot: interrupted; nothing written", file=sys.stderr)
        return 128 + signal.SIGINT
    except Stopped as stop:
        print(f"velmot: stopped by {signal.Signals(stop.signum).name}; nothing written", file=sys.stderr)
        return 128 + stop.signum
    finally:
        for name, handler in handlers.items():
            signal.signal(getattr(signal, name), handler)
    return 0


if __name__ == "__main__":
    sys.exit(main())
