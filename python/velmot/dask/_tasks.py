"""What runs on the workers: learning a block of trees from scattered data
or from one partition, summarizing a partition, predicting a block of rows."""

import warnings
import weakref

import numpy as np
from sklearn.utils.validation import check_array

from .._features import (
    as_module_dtype,
    check_splittable,
    feature_major,
    feature_major_with_constant_row,
    upper_medians,
)
from .._learning import learn_chunk, prepared_once


def partition_data(X_part, y_part):
    """One partition as the module's matrix (None if empty) and its labels."""
    y = np.asarray(y_part)
    if y.ndim == 2:
        y = y[:, 0]
    if len(X_part) != len(y):
        raise ValueError(
            f"a partition of X has {len(X_part)} rows but its partition of y has {len(y)} labels; "
            "give X and y the same partitions."
        )
    if len(y) == 0:
        return None, y
    X = as_module_dtype(check_array(X_part, dtype="numeric", ensure_all_finite="allow-nan"))
    check_splittable(X)
    return X, y


def summarize_partition(X_part, y_part):
    """What the client needs from a partition before learning: its size, its
    labels, and its medians with the number of values they are taken over."""
    X, y = partition_data(X_part, y_part)
    if X is None:
        return {"n_samples": 0}
    return {
        "n_samples": len(y),
        "classes": np.unique(y),
        "medians": upper_medians(X),
        "present": np.count_nonzero(~np.isnan(X), axis=0) if X.dtype.kind == "f" else np.full(X.shape[1], len(y)),
    }


# Per worker process: the module's preparation (copy, imputation, ranks) of
# each scattered feature matrix, by the matrix's id, for as long as the
# matrix lives, so that the blocks one worker learns from one scatter
# prepare the features once instead of once per block.
_worker_preparations = {}


def learn_block(features, labels, **arguments):
    """learn_chunk on a scattered matrix, reusing the preparation of it that
    an earlier block on this worker made."""
    key = id(features)
    view = prepared_once(features)
    view._velmot_prepared = _worker_preparations.get(key)
    result = learn_chunk(view, labels, **arguments)
    if key not in _worker_preparations and view._velmot_prepared is not None:
        # Dropped with the matrix, before its id can be reused.
        weakref.finalize(features, _worker_preparations.pop, key, None)
        _worker_preparations[key] = view._velmot_prepared
    return result


def learn_partition(X_part, y_part, classes, *, n_trees, seed, settings):
    X, y = partition_data(X_part, y_part)
    features = feature_major_with_constant_row(X) if settings.all_features else feature_major(X)
    # Codes over the global classes: a partition lacking a class still
    # learns with the forest's class count.
    labels = np.searchsorted(classes, y).astype(np.int32)
    return learn_chunk(features, labels, n_classes=len(classes), n_trees=n_trees, seed=seed, settings=settings)


def predict_block(block, forest, method):
    """One block's predictions; an empty block (a filtered partition) gives
    an empty result of the right shape."""
    if len(block) == 0:
        shape = (0,) if method == "predict" else (0, forest.n_classes_)
        return np.empty(shape, dtype=forest.classes_.dtype if method == "predict" else np.float64)
    with warnings.catch_warnings():
        # Already warned once on the client for the whole collection.
        warnings.filterwarnings("ignore", message="X does not have valid feature names")
        return getattr(forest, method)(block)
