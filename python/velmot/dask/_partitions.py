"""A training set's row partitions, seen from the client: X and y aligned
block for block, and the partitions' medians combined into one fill value
per feature."""

import warnings

import dask
import dask.array as da
import numpy as np
from sklearn.exceptions import DataConversionWarning


def is_dask_dataframe(X):
    return dask.is_dask_collection(X) and hasattr(X, "map_partitions") and hasattr(X, "columns")


def aligned_partitions(X, y):
    """X and y as Dask collections with the same row partitions, and the
    number of features."""
    if isinstance(X, da.Array):
        if X.ndim != 2:
            raise ValueError(f"X must be 2-D, (n_samples, n_features); got a Dask array of shape {X.shape}.")
        if X.numblocks[1] > 1:
            X = X.rechunk({1: -1})
        n_features, n_partitions = X.shape[1], X.numblocks[0]
        known_rows = not any(np.isnan(X.chunks[0]))
    elif is_dask_dataframe(X):
        n_features, n_partitions = len(X.columns), X.npartitions
        known_rows = False
    else:
        raise ValueError(
            "partition_wise=True learns each block of trees from one partition of a Dask array or DataFrame; "
            f"X is a {type(X).__name__}: pass a Dask collection, or partition_wise=False."
        )

    if not dask.is_dask_collection(y):
        if not known_rows:
            raise ValueError(
                "partition-wise, y must be a Dask collection with the same partitions as X (for example "
                "ddf['label'] beside ddf.drop(columns='label')) when X's partition lengths are unknown."
            )
        y = np.asarray(y)
        if len(y) != X.shape[0]:
            raise ValueError(f"X has {X.shape[0]} samples but y has {len(y)} labels.")
        y = da.from_array(y, chunks=(X.chunks[0],) + y.shape[1:])
    elif isinstance(y, da.Array) and isinstance(X, da.Array) and known_rows:
        if y.shape[0] != X.shape[0]:
            raise ValueError(f"X has {X.shape[0]} samples but y has {y.shape[0]} labels.")
        if y.chunks[0] != X.chunks[0]:
            y = y.rechunk({0: X.chunks[0]})

    if y.ndim == 2 and y.shape[1] == 1:
        warnings.warn(
            "A column-vector y was passed when a 1d array was expected. Please change the shape of y to "
            "(n_samples,), for example using ravel().",
            DataConversionWarning,
            stacklevel=4,
        )
    elif y.ndim != 1:
        raise ValueError(f"y must be a vector of labels, (n_samples,); got {y.ndim} dimensions.")
    y_partitions = y.numblocks[0] if isinstance(y, da.Array) else y.npartitions
    if y_partitions != n_partitions:
        raise ValueError(f"X has {n_partitions} partitions but y has {y_partitions}; give y the same partitions as X.")
    return X, y, n_features


def delayed_partitions(collection):
    parts = collection.to_delayed()
    return list(parts.ravel()) if isinstance(parts, np.ndarray) else list(parts)


def combined_medians(summaries, n_features):
    """Per column, the upper weighted median of the partitions' medians,
    weighted by their present values."""
    medians = np.array([summary["medians"] for summary in summaries])
    present = np.array([summary["present"] for summary in summaries])
    combined = np.zeros(n_features, dtype=np.float64)
    for column in range(n_features):
        order = np.argsort(medians[:, column], kind="stable")
        cumulative = np.cumsum(present[order, column])
        if cumulative[-1] > 0:
            combined[column] = medians[order[np.searchsorted(cumulative, cumulative[-1] // 2, side="right")], column]
    return combined
