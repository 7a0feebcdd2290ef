"""Rows of a CSV file for the command line: UTF-8 text (a leading byte-order
mark is not data), an optional header line, fields turned into numbers.

Every problem is a ValueError that names the file and the line, so the
command line can print it as its one line of error.
"""

import csv
import math
import re

import numpy as np

# Fields that stand for a missing value: the library imputes the median.
MISSING = frozenset(("", "NA", "nan", "NaN"))
# Bytes that are not UTF-8 decode to these under "surrogateescape", which no
# valid UTF-8 text can hold: a line with one names its line and byte exactly.
_UNDECODED = re.compile("[\udc80-\udcff]")


def parse_number(text):
    """The float a field holds, or None when it is not a plain decimal number.

    Python's float() also reads digit-group underscores ("1_5" is 15) and
    digits of other scripts, which no CSV writer means as numbers.
    """
    if "_" in text or not text.isascii():
        return None
    return _float_or_none(text)


def _float_or_none(text):
    try:
        return float(text)
    except ValueError:
        return None


class CsvRows:
    """The rows of a CSV file, blank lines skipped, read one at a time.

    ``first`` is the first row; ``take_header(columns)`` decides whether it
    is a header; ``chunks`` then yields the remaining data rows as arrays.
    """

    def __init__(self, path):
        self.path = path
        # utf-8-sig drops a leading byte-order mark; newline="" hands csv
        # the line endings (\n, \r\n or \r) untouched, as it requires.
        self._file = open(path, encoding="utf-8-sig", errors="surrogateescape", newline="")
        try:
            self._reader = csv.reader(self._text_lines())
            self.first = self._next_row()
        except BaseException:
            self._file.close()
            raise
        if self.first is None:
            self._file.close()
            raise ValueError(f"{path}: the file holds no rows")
        self.n_columns = len(self.first)
        self.header = None
        self._pending = self.first

    def _text_lines(self):
        for number, line in enumerate(self._file, 1):
            undecoded = None if line.isascii() else _UNDECODED.search(line)
            if undecoded:
                raise ValueError(
                    f"{self.path} line {number}: not UTF-8 text "
                    f"(byte {ord(undecoded.group()) - 0xDC00:#04x}); save the file as UTF-8"
                )
            yield line

    def _next_row(self):
        try:
            for row in self._reader:
                if row:  # blank lines carry nothing
                    return row
        except csv.Error as error:
            raise ValueError(f"{self.path} line {self._reader.line_num}: {error}") from None
        return None

    def take_header(self, feature_columns):
        """Takes the first row as the header when one of its feature fields
        is neither a number nor a missing value. Returns the header or None."""
        if any(self.first[c].strip() not in MISSING and parse_number(self.first[c]) is None for c in feature_columns):
            self.header = self.first
            self._pending = None
        return self.header

    def chunks(self, rows_per_chunk, feature_columns, class_column):
        """Yields (features float64 array, class fields) per chunk of rows."""
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
            yield self._convert(rows, feature_columns, class_column)

    def _convert(self, rows, feature_columns, class_column):
        features = np.empty((len(rows), len(feature_columns)), dtype=np.float64)
        classes = []
        for r, (line, row) in enumerate(rows):
            if len(row) != self.n_columns:
                raise ValueError(f"{self.path} line {line}: expected {self.n_columns} fields, found {len(row)}")
            # float() alone suffices on a row of plain ASCII without underscores.
            plain = "".join(row)
            parse = _float_or_none if plain.isascii() and "_" not in plain else parse_number
            for k, c in enumerate(feature_columns):
                text = row[c].strip()
                value = math.nan if text in MISSING else parse(text)
                if value is None:
                    raise ValueError(f"{self.path} line {line}, column {c}: {row[c]!r} is not a number")
                if math.isinf(value):
                    raise ValueError(f"{self.path} line {line}, column {c}: infinite values are not allowed")
                features[r, k] = value
            if class_column is not None:
                text = row[class_column].strip()
                if not text:
                    raise ValueError(f"{self.path} line {line}: the class (column {class_column}) is empty")
                classes.append(text)
        return features, classes

    def close(self):
        self._file.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
