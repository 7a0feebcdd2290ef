"""Data files for the command line, read through pyarrow: CSV files, and
Parquet files or folders of them (chosen by the extension .parquet or .pq,
or by the path being a folder).

CSV files are parsed on all cores, feature columns straight to float64;
the rows of ``_csv.CsvRows`` stay the rule for what a CSV file means. That
reader decides about the header, and whenever pyarrow refuses a file or
reads something that reader might read otherwise (a spelling of NaN other
than the missing-value words, an infinite value, a class that is blank, a
very long field, a row count pyarrow did not expect), the file is read again
by the row reader, which either reads it as before or names the line that
is wrong. A well-formed file therefore costs one fast pass, a malformed one
also the slow pass that finds its line.

A Parquet file has column names and types: feature columns must be numbers
(integers, floats or bools; nulls are missing values), and the class column
may be of any type, taken as text. Training keeps the features' own element
type when they all share one that the library learns on (float64, float32,
int32, uint8) and have no nulls; otherwise they become float64.
"""

import csv
import os

import numpy as np

from ._csv import MISSING, CsvRows

PARQUET_SUFFIXES = (".parquet", ".pq")
# Bytes of CSV text per record batch when predicting: each batch is one
# numpy matrix, so this bounds the memory prediction needs.
_BATCH_BYTES = 1 << 22
_NATIVE_TYPES = {"double": np.float64, "float": np.float32, "int32": np.int32, "uint8": np.uint8}


def _use_system_allocator():
    """Makes the C library's allocator pyarrow's default: pyarrow's own pool
    keeps a table's pages after the table is freed, and they would stay
    resident through the whole fit. (The command line is the only user of
    pyarrow in its process.) The variable reaches the pool that pyarrow's
    C++ code takes by itself, as the Parquet reader does (100 MiB kept on
    the 76 MiB matrix of bench/cli_reading.py), if set before its first use."""
    os.environ.setdefault("ARROW_DEFAULT_MEMORY_POOL", "system")
    import pyarrow as pa

    pa.set_memory_pool(pa.system_memory_pool())


def _release_memory():
    import pyarrow as pa

    pa.default_memory_pool().release_unused()


def _empty_columns(shape, dtype):
    return np.empty(shape, dtype, order="F")


class _Unsure(Exception):
    """pyarrow's reading may differ from the row reader's: read the rows."""


def open_table(path):
    """The table of a data file: ParquetTable or CsvTable by its name."""
    _use_system_allocator()
    if os.path.isdir(path) or path.lower().endswith(PARQUET_SUFFIXES):
        return ParquetTable(path)
    return CsvTable(path)


def _column_name(c):
    return f"f{c}"  # pyarrow's name for a CSV column without a header


class CsvTable:
    """A CSV file: its first row (a header or not) and its columns."""

    def __init__(self, path):
        self.path = path
        self._rows = CsvRows(path)
        self.n_columns = self._rows.n_columns

    @property
    def first_row(self):
        return self._rows.first

    def take_header(self, feature_columns):
        return self._rows.take_header(feature_columns)

    def training_data(self, feature_columns, class_column, empty=_empty_columns):
        """(features float64 (n, k) in column-major order, made by
        ``empty(shape, dtype)``, class texts of the distinct classes, each
        row's index into them)."""
        import pyarrow as pa
        import pyarrow.csv as pacsv

        columns = []
        try:
            table = pacsv.read_csv(self.path, **self._arrow_options(feature_columns, use_threads=True))
            if table.num_columns != self.n_columns:
                raise _Unsure
            _check_fields(table, feature_columns)
            classes, inverse = _class_texts(table.column(_column_name(class_column)))
            if "" in classes:
                raise _Unsure
            # Each column's memory goes back as soon as it is copied: the
            # table and the matrix are never both whole. So do the parsing's
            # freed buffers (about 80 MiB for a 90 MiB file), before the matrix.
            columns = [table.column(_column_name(c)) for c in feature_columns]
            table = None
            _release_memory()
            features = empty((len(inverse), len(feature_columns)), np.float64)
            for k in range(len(columns)):
                column, columns[k] = columns[k], None
                _checked_floats(features[:, k], column)
                column = None
                _release_memory()
        except (pa.ArrowException, _Unsure):
            return self._read_rows(feature_columns, class_column, empty)
        finally:
            table = columns = None
            _release_memory()
        return features, classes, inverse

    def _read_rows(self, feature_columns, class_column, empty=_empty_columns):
        chunks = list(self._rows.chunks(1 << 16, feature_columns, class_column))
        features = empty((sum(len(chunk) for chunk, _ in chunks), len(feature_columns)), np.float64)
        if chunks:
            np.concatenate([chunk for chunk, _ in chunks], out=features)
        classes, inverse = np.unique([text for _, texts in chunks for text in texts], return_inverse=True)
        return features, classes.tolist(), inverse

    def feature_batches(self, feature_columns, rows_per_batch):
        """Yields float64 (n, k) matrices of the data rows in order, a batch
        at a time, so that files larger than memory can be read."""
        import pyarrow as pa
        import pyarrow.csv as pacsv

        done = 0
        try:
            reader = pacsv.open_csv(self.path, **self._arrow_options(feature_columns, use_threads=False))
            for batch in reader:
                if batch.num_columns != self.n_columns:
                    raise _Unsure
                _check_fields(batch, feature_columns)
                features = np.empty((batch.num_rows, len(feature_columns)))
                for k, c in enumerate(feature_columns):
                    _checked_floats(features[:, k], batch.column(_column_name(c)))
                for start in range(0, len(features), rows_per_batch):
                    yield features[start : start + rows_per_batch]
                done += len(features)
            return
        except (pa.ArrowException, _Unsure):
            pass
        # The row reader reads the file again: rows already yielded are
        # passed over, and the first it reads otherwise names its line.
        for chunk, _ in self._rows.chunks(rows_per_batch, feature_columns, None):
            skip = min(done, len(chunk))
            done -= skip
            if skip < len(chunk):
                yield chunk[skip:]

    def _arrow_options(self, feature_columns, *, use_threads):
        import pyarrow as pa
        import pyarrow.csv as pacsv

        types = {_column_name(c): pa.string() for c in range(self.n_columns)}
        types.update({_column_name(c): pa.float64() for c in feature_columns})
        return {
            "read_options": pacsv.ReadOptions(
                use_threads=use_threads,
                block_size=None if use_threads else _BATCH_BYTES,
                skip_rows=0 if self._rows.header is None else 1,
                autogenerate_column_names=True,
            ),
            # A quoted field may hold line ends, as the row reader allows.
            "parse_options": pacsv.ParseOptions(newlines_in_values=True),
            "convert_options": pacsv.ConvertOptions(
                column_types=types, null_values=sorted(MISSING), strings_can_be_null=False, check_utf8=True
            ),
        }

    def close(self):
        self._rows.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def _checked_floats(out, column):
    """Writes the column into out, missing values NaN; _Unsure where pyarrow
    read a NaN it was not told to (the row reader refuses some spellings of
    it) or an infinite value (refused, with its line)."""
    _write_numbers(out, column)
    if np.count_nonzero(~np.isfinite(out)) != column.null_count:
        raise _Unsure


def _write_numbers(out, column):
    """Writes a pyarrow array of numbers or bools into the numpy vector out,
    converted to out's type as numpy converts (NaN for nulls, which only a
    floating out can hold). pyarrow's own to_numpy would import pandas: a
    quarter of a second and 30 MiB of the command line's start."""
    import pyarrow as pa

    kind = pa.from_numpy_dtype(out.dtype)
    start = 0
    for chunk in getattr(column, "chunks", [column]):
        if not len(chunk):
            continue
        chunk = chunk if chunk.type == kind else chunk.cast(kind, safe=False)
        end = start + len(chunk)
        validity, data = chunk.buffers()
        out[start:end] = np.frombuffer(data, out.dtype, count=len(chunk), offset=chunk.offset * out.itemsize)
        if chunk.null_count:
            bits = np.unpackbits(np.frombuffer(validity, np.uint8), count=chunk.offset + len(chunk), bitorder="little")
            out[start:end][bits[chunk.offset :] == 0] = np.nan
        start = end


def _check_fields(table, feature_columns):
    """_Unsure if a text field reaches the row reader's field size limit."""
    import pyarrow.compute as pc

    for c in set(range(table.num_columns)) - set(feature_columns):
        longest = pc.max(pc.utf8_length(table.column(_column_name(c)))).as_py()
        if longest is not None and longest >= csv.field_size_limit():
            raise _Unsure


def _class_texts(column):
    """The distinct class texts, white space stripped, and each row's index
    into them."""
    import pyarrow.compute as pc

    distinct = pc.unique(column)
    codes = np.empty(len(column), dtype=np.int32)
    _write_numbers(codes, pc.index_in(column, value_set=distinct))
    texts = [text.strip() for text in distinct.to_pylist()]
    return texts, codes


class ParquetTable:
    """A Parquet file, or a folder of Parquet files read as one table."""

    def __init__(self, path):
        import pyarrow as pa

        self.path = path
        try:
            self._data = _ParquetFolder(path) if os.path.isdir(path) else _ParquetFile(path)
        except (pa.ArrowException, OSError) as error:
            raise ValueError(f"{path}: not a Parquet file or folder of them ({error})") from None
        self._names = self._data.schema.names
        self.n_columns = len(self._names)
        if self.n_columns == 0:
            raise ValueError(f"{path}: the file holds no columns")

    @property
    def first_row(self):
        return self._names

    def take_header(self, feature_columns):
        return self._names

    def _check_numbers(self, feature_columns):
        import pyarrow as pa

        for c in feature_columns:
            kind = self._data.schema.field(c).type
            if not (pa.types.is_integer(kind) or pa.types.is_floating(kind) or pa.types.is_boolean(kind)):
                raise ValueError(f"{self.path}: column {c} ({self._names[c]!r}) holds {kind}, not numbers")

    def _read(self, columns):
        import pyarrow as pa

        try:
            return self._data.table([self._names[c] for c in columns])
        except pa.ArrowException as error:
            raise ValueError(f"{self.path}: {error}") from None

    def training_data(self, feature_columns, class_column, empty=_empty_columns):
        """As CsvTable.training_data, in the features' own type where the
        library learns on it. Columns are read one at a time, each freed
        once copied, so that the matrix is the only whole copy of the data."""
        import pyarrow.compute as pc

        self._check_numbers(feature_columns)
        classes = self._read([class_column]).column(0)
        kinds = {str(self._data.schema.field(c).type) for c in feature_columns}
        dtype = _NATIVE_TYPES[kinds.pop()] if len(kinds) == 1 and kinds <= set(_NATIVE_TYPES) else np.float64
        features = empty((len(classes), len(feature_columns)), dtype)
        for k, c in enumerate(feature_columns):
            column = self._read([c]).column(0)
            if column.null_count and features.dtype != np.float64:
                # Missing values need NaN: the columns read so far are converted.
                converted = empty(features.shape, np.float64)
                converted[...] = features
                features = converted
            self._numbers(features[:, k], column, c, 0)
            del column
            _release_memory()
        if classes.null_count:
            row = int(np.flatnonzero(np.asarray(pc.is_null(classes)))[0])
            raise ValueError(f"{self.path} row {row + 1}: the class (column {class_column}) is empty")
        texts, inverse = _class_texts(pc.cast(classes, "string"))
        if "" in texts:
            row = int(np.flatnonzero(np.asarray(inverse) == texts.index(""))[0])
            raise ValueError(f"{self.path} row {row + 1}: the class (column {class_column}) is empty")
        return features, texts, inverse

    def feature_batches(self, feature_columns, rows_per_batch):
        import pyarrow as pa

        self._check_numbers(feature_columns)
        done = 0
        try:
            columns = [self._names[c] for c in feature_columns]
            for batch in self._data.batches(columns):
                features = np.empty((batch.num_rows, len(feature_columns)))
                for k, c in enumerate(feature_columns):
                    self._numbers(features[:, k], batch.column(k), c, done)
                for start in range(0, len(features), rows_per_batch):
                    yield features[start : start + rows_per_batch]
                done += len(features)
        except pa.ArrowException as error:
            raise ValueError(f"{self.path}: {error}") from None

    def _numbers(self, out, column, c, first_row):
        """Writes the column into out; ValueError naming the first row of
        an infinite value."""
        _write_numbers(out, column)
        if out.dtype.kind == "f":
            infinite = np.flatnonzero(np.isinf(out))
            if len(infinite):
                row = first_row + int(infinite[0]) + 1
                raise ValueError(f"{self.path} row {row}, column {c}: infinite values are not allowed")

    def close(self):
        self._data.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class _ParquetFile:
    """One Parquet file, read through pyarrow.parquet: pyarrow.dataset's
    import loads pandas, a quarter of a second of the command's start."""

    def __init__(self, path):
        import pyarrow.parquet as pq

        self._file = pq.ParquetFile(path)
        self.schema = self._file.schema_arrow

    def table(self, names):
        return self._file.read(columns=names)

    def batches(self, names):
        return self._file.iter_batches(columns=names)

    def close(self):
        self._file.close()


class _ParquetFolder:
    """A folder of Parquet files, read as one table through pyarrow.dataset."""

    def __init__(self, path):
        import pyarrow.dataset as ds

        self._data = ds.dataset(path, format="parquet")
        self.schema = self._data.schema

    def table(self, names):
        return self._data.to_table(columns=names)

    def batches(self, names):
        return self._data.to_batches(columns=names)

    def close(self):
        pass
