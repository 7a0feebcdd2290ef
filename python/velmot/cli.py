"""The ``velmot`` command: train, predict and inspect from CSV files.

    velmot train DATA.csv [--description DATA.desc] [options] -o MODEL.npz
    velmot predict MODEL.npz DATA.csv [--description DATA.desc] [--proba] -o OUT.csv
    velmot inspect MODEL.npz

A description file (read by the library's own reader) says which CSV column
holds the class (``class-column``), which columns to drop (``ignore``), the
names of features (``feature-name``, by CSV column number) and of classes
(``label CODE NAME``). Without one, the last column is the class and every
other column a feature. A header line is optional: a first line whose
feature fields are not all numbers is taken as one.

Every failure ends with exit status 2 and one line on standard error;
nothing is written then (outputs go to a temporary file that is renamed
into place only at the end).
"""

import argparse
import csv
import math
import os
import sys
import tempfile
from dataclasses import dataclass, field

import numpy as np

EXIT_FAILURE = 2
PREDICT_CHUNK_ROWS = 10_000


class CommandError(Exception):
    """A failure the user can fix; printed as one line, exit status 2."""


# ---------------------------------------------------------------------------
# Descriptions


@dataclass
class Layout:
    """Where the class and the features stand in a CSV file's columns."""

    class_column: int | None
    ignored: set = field(default_factory=set)
    feature_names: dict = field(default_factory=dict)  # CSV column -> name
    class_names: dict = field(default_factory=dict)  # code -> name

    def feature_columns(self, n_columns):
        return [c for c in range(n_columns) if c != self.class_column and c not in self.ignored]


def read_layout(description_path):
    """The layout a description file gives, or the default layout."""
    if description_path is None:
        return Layout(class_column=None)
    if not os.path.isfile(description_path):
        raise CommandError(f"description file not found: {description_path}")
    import PyVelmot_description

    try:
        description = PyVelmot_description.read_description(description_path)
    except RuntimeError as error:
        # The reader's own text, with its line number.
        raise CommandError(f"{description_path}: {str(error).strip()}") from None
    class_column = description["class_column"]
    return Layout(
        class_column=None if class_column < 0 else class_column,
        ignored=set(description["ignored_columns"]),
        feature_names=dict(description["feature_names"]),
        class_names=dict(description["labels"]),
    )


# ---------------------------------------------------------------------------
# CSV


def _is_number(text):
    try:
        float(text)
    except ValueError:
        return False
    return True


class CsvRows:
    """Rows of a CSV file with the header (if any) taken off, and the
    position of each row for messages."""

    def __init__(self, path, layout, n_features=None):
        """n_features, when given, is the model's feature count: a file
        without a description whose rows hold exactly that many fields then
        has no class column (rows to predict need none)."""
        if not os.path.isfile(path):
            raise CommandError(f"data file not found: {path}")
        self.path = path
        self._file = open(path, newline="")
        try:
            self._start(layout, n_features)
        except BaseException:
            self._file.close()
            raise

    def _start(self, layout, n_features):
        path = self.path
        self._reader = csv.reader(self._file)
        self.header = None
        first = self._next_row()
        if first is None:
            raise CommandError(f"{path}: the file holds no rows")
        self.n_columns = len(first)
        if layout.class_column is not None:
            self.class_column = layout.class_column
        elif n_features is not None and self.n_columns == n_features:
            self.class_column = None
        else:
            self.class_column = self.n_columns - 1
        if self.class_column is not None and not 0 <= self.class_column < self.n_columns:
            raise CommandError(
                f"class column {self.class_column} is out of range: {path} has {self.n_columns} columns")
        self.feature_columns = [
            c for c in layout.feature_columns(self.n_columns) if c != self.class_column]
        if not self.feature_columns:
            raise CommandError(f"{path}: no feature columns are left")
        if all(_is_number(first[c]) for c in self.feature_columns):
            self._pending = first
        else:
            self.header = first
            self._pending = None

    def _next_row(self):
        for row in self._reader:
            if row:  # blank lines carry nothing
                return row
        return None

    def chunks(self, rows_per_chunk):
        """Yields (features float64 array, class fields list) per chunk."""
        while True:
            rows = []
            if self._pending is not None:
                rows.append((self._reader.line_num, self._pending))
                self._pending = None
            while len(rows) < rows_per_chunk:
                row = self._next_row()
                if row is None:
                    break
                rows.append((self._reader.line_num, row))
            if not rows:
                return
            yield self._convert(rows)

    def _convert(self, rows):
        features = np.empty((len(rows), len(self.feature_columns)), dtype=np.float64)
        classes = []
        for r, (line, row) in enumerate(rows):
            if len(row) != self.n_columns:
                raise CommandError(
                    f"{self.path} line {line}: expected {self.n_columns} fields, found {len(row)}")
            for k, c in enumerate(self.feature_columns):
                text = row[c].strip()
                if text in ("", "NA", "nan", "NaN"):
                    features[r, k] = math.nan  # missing: the library imputes the median
                    continue
                try:
                    features[r, k] = float(text)
                except ValueError:
                    raise CommandError(
                        f"{self.path} line {line}, column {c}: {row[c]!r} is not a number") from None
                if math.isinf(features[r, k]):
                    raise CommandError(f"{self.path} line {line}, column {c}: infinite values are not allowed")
            if self.class_column is not None:
                classes.append(row[self.class_column].strip())
        return features, classes

    def close(self):
        self._file.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def _feature_names(rows, layout):
    names = []
    for c in rows.feature_columns:
        if c in layout.feature_names:
            names.append(layout.feature_names[c])
        elif rows.header is not None and rows.header[c].strip():
            names.append(rows.header[c].strip())
        else:
            names.append(f"column{c}")
    return names


def _encode_classes(fields, layout, path):
    """Class codes for the class fields, and the name of each code."""
    if layout.class_names:
        code_of = {name: code for code, name in layout.class_names.items()}
        codes = np.empty(len(fields), dtype=np.int64)
        for i, text in enumerate(fields):
            if text in code_of:
                codes[i] = code_of[text]
            elif text.isdigit() and int(text) in layout.class_names:
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


def _atomic_output(path, write):
    """Runs write(temp_path), then renames the result onto path."""
    directory = os.path.dirname(os.path.abspath(path))
    fd, temp = tempfile.mkstemp(dir=directory, prefix=".velmot-", suffix=os.path.splitext(path)[1])
    os.close(fd)
    try:
        write(temp)
        os.replace(temp, path)
    except BaseException:
        if os.path.exists(temp):
            os.unlink(temp)
        raise


# A model file is the package's own forest file (velmot.load reads it) with
# two more arrays: the feature names, and the class name of each class code.
_FEATURE_NAMES_KEY = "command_line_feature_names"
_CLASS_NAMES_KEY = "command_line_class_names"


def _save_model(model, path, feature_names, class_names):
    import io

    buffer = io.BytesIO()
    model.save(buffer)
    buffer.seek(0)
    with np.load(buffer, allow_pickle=False) as archive:
        arrays = {key: archive[key] for key in archive.files}
    arrays[_FEATURE_NAMES_KEY] = np.array(feature_names, dtype=str)
    arrays[_CLASS_NAMES_KEY] = np.array([class_names[int(code)] for code in model.classes_], dtype=str)

    def write(temp):
        with open(temp, "wb") as file:
            np.savez_compressed(file, **arrays)

    _atomic_output(path, write)


def _load_model(path):
    """(model, feature names, {class code: name}) from a model file."""
    import velmot

    if not os.path.isfile(path):
        raise CommandError(f"model file not found: {path}")
    try:
        model = velmot.load(path)
        with np.load(path, allow_pickle=False) as archive:
            if _FEATURE_NAMES_KEY not in archive.files or _CLASS_NAMES_KEY not in archive.files:
                raise ValueError("not written by velmot train (no feature or class names)")
            feature_names = [str(name) for name in archive[_FEATURE_NAMES_KEY]]
            class_names = [str(name) for name in archive[_CLASS_NAMES_KEY]]
    except ValueError as error:
        raise CommandError(f"{path}: {error}") from None
    if len(feature_names) != model.n_features_in_ or len(class_names) != len(model.classes_):
        raise CommandError(f"{path}: damaged model file (names do not match the forest)")
    return model, feature_names, dict(zip((int(code) for code in model.classes_), class_names))


# ---------------------------------------------------------------------------
# Commands


def train(args):
    from velmot import RandomForestClassifier

    layout = read_layout(args.description)
    with CsvRows(args.data, layout) as rows:
        chunks = list(rows.chunks(PREDICT_CHUNK_ROWS))
        feature_names = _feature_names(rows, layout)
    X = np.concatenate([features for features, _ in chunks])
    fields = [text for _, classes in chunks for text in classes]
    y, class_names = _encode_classes(fields, layout, args.data)
    model = RandomForestClassifier(
        n_estimators=args.trees,
        criterion=args.criterion,
        max_features=_max_features(args.max_features),
        max_depth=args.max_depth,
        n_jobs=args.jobs,
        random_state=args.seed,
        verbose=0 if args.quiet else 1,
    )
    try:
        model.fit(X, y)
    except (ValueError, TypeError) as error:
        raise CommandError(str(error)) from None
    _save_model(model, args.output, feature_names, class_names)
    print(f"learnt {args.trees} trees on {X.shape[0]} rows and {X.shape[1]} features; saved {args.output}",
          file=sys.stderr)


def _max_features(text):
    if text in ("sqrt", "log2"):
        return text
    if text in ("all", "None", "none"):
        return None
    try:
        return int(text)
    except ValueError:
        pass
    try:
        return float(text)
    except ValueError:
        raise CommandError(f"--max-features must be sqrt, log2, all, a count or a fraction, not {text!r}") from None


def predict(args):
    model, _, class_names = _load_model(args.model)
    layout = read_layout(args.description)
    classes = [class_names[int(code)] for code in model.classes_]

    def write(temp):
        with CsvRows(args.data, layout, model.n_features_in_) as rows, open(temp, "w", newline="") as out:
            writer = csv.writer(out)
            if len(rows.feature_columns) != model.n_features_in_:
                raise CommandError(f"{args.data}: {len(rows.feature_columns)} feature columns, "
                                   f"but the model was learnt on {model.n_features_in_}")
            if args.proba:
                writer.writerow(classes)
            for features, _ in rows.chunks(PREDICT_CHUNK_ROWS):
                if args.proba:
                    writer.writerows(model.predict_proba(features).tolist())
                else:
                    codes = model.predict(features)
                    writer.writerows([[class_names[int(code)]] for code in codes])

    _atomic_output(args.output, write)


def inspect(args):
    model, feature_names, class_names = _load_model(args.model)
    trees = model.trees_
    nodes = [tree.shape[1] for tree in trees]
    depths = [_depth(tree) for tree in trees]
    print(f"classes:  {', '.join(class_names[int(code)] for code in model.classes_)}")
    print(f"features: {model.n_features_in_}")
    print(f"trees:    {len(trees)}")
    print(f"nodes:    {sum(nodes)} in all, {min(nodes)} to {max(nodes)} per tree")
    print(f"depth:    {min(depths)} to {max(depths)}")
    print("\nimportance  feature")
    importances = model.feature_importances_
    for j in sorted(range(len(importances)), key=lambda j: (-importances[j], j)):
        print(f"{importances[j]:10.4f}  {feature_names[j]}")


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


def build_parser():
    parser = argparse.ArgumentParser(prog="velmot", description="Random forests from CSV files.")
    commands = parser.add_subparsers(dest="command", required=True)

    p = commands.add_parser("train", help="learn a forest from a CSV file and save it")
    p.add_argument("data", help="CSV file of training rows")
    p.add_argument("--description", help="description file naming the class column, ignored columns and names")
    p.add_argument("--trees", type=int, default=100, help="number of trees (default 100)")
    p.add_argument("--criterion", default="gini", choices=["gini", "entropy", "log_loss", "gain_ratio"])
    p.add_argument("--max-features", default="sqrt", help="features tried per split: sqrt, log2, all, N or a fraction")
    p.add_argument("--max-depth", type=int, default=None, help="depth limit (default: none)")
    p.add_argument("--jobs", type=int, default=None, help="threads (-1: all cores)")
    p.add_argument("--seed", type=int, default=None, help="seed, for a reproducible forest")
    p.add_argument("--quiet", action="store_true", help="no progress bar")
    p.add_argument("-o", "--output", required=True, help="model file to write (.npz)")
    p.set_defaults(run=train)

    p = commands.add_parser("predict", help="predict the classes of a CSV file's rows")
    p.add_argument("model", help="model file written by velmot train")
    p.add_argument("data", help="CSV file of rows to predict")
    p.add_argument("--description", help="description file of the CSV file")
    p.add_argument("--proba", action="store_true", help="write one probability per class instead of the class")
    p.add_argument("-o", "--output", required=True, help="CSV file to write")
    p.set_defaults(run=predict)

    p = commands.add_parser("inspect", help="summarise a model file")
    p.add_argument("model", help="model file written by velmot train")
    p.set_defaults(run=inspect)
    return parser


def main(argv=None):
    args = build_parser().parse_args(argv)
    try:
        args.run(args)
    except CommandError as error:
        print(f"velmot: error: {error}", file=sys.stderr)
        return EXIT_FAILURE
    except OSError as error:
        print(f"velmot: error: {error}", file=sys.stderr)
        return EXIT_FAILURE
    return 0


if __name__ == "__main__":
    sys.exit(main())
