"""What runs on the workers: learning a block of trees from scattered data
or from one partition, summarizing a partition, predicting a block of rows."""

import warnings
import weakref

import numpy as np
from sklearn.utils.validation import check_array

from .._features import as_module_dtype, check_splittable, learning_features, upper_medians
from .._forest import weighed_medians
from .._learning import learn_trees, prepare
from .._regressor import MAX_TARGET


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


def summarize_partition(X_part, y_part, with_classes=True):
    """What the client needs from a partition before learning: its size, its
    labels (with_classes), and its medians with the number of values they
    are taken over."""
    X, y = partition_data(X_part, y_part)
    if X is None:
        return {"n_samples": 0}
    return {
        "n_samples": len(y),
        **(dict(zip(("classes", "class_counts"), np.unique(y, return_counts=True))) if with_classes else {}),
        "medians": upper_medians(X),
        "present": np.count_nonzero(~np.isnan(X), axis=0) if X.dtype.kind == "f" else np.full(X.shape[1], len(y)),
    }


# Per worker process: the preparation (copy, imputation, ranks) of each
# scattered training set, by the feature matrix's id, for as long as the
# matrix lives, so that the blocks one worker learns from one scatter
# prepare the data once instead of once per block.
_worker_preparations = {}


def learn_block(features, labels, sample_weight=None, *, n_classes, first_tree, last_tree, seed, settings):
    """Trees [first_tree, last_tree) of the forest of ``seed`` from a
    scattered training set: (ForestNodes, importance rows, out-of-bag votes
    or None)."""
    key = id(features)
    data = _worker_preparations.get(key)
    if data is None:
        # Copied, not read in place: a preparation that referenced the
        # matrix would keep it, and so itself, alive.
        data = prepare(features, labels, n_classes=n_classes, settings=settings, in_place=False)
        # Dropped with the matrix, before its id can be reused.
        weakref.finalize(features, _worker_preparations.pop, key, None)
        _worker_preparations[key] = data
    return learn_trees(
        data, first_tree=first_tree, last_tree=last_tree, seed=seed, settings=settings, sample_weight=sample_weight
    )


def learn_partition(X_part, y_part, classes, *, first_tree, last_tree, seed, settings, class_factors=None):
    """Trees [first_tree, last_tree) of the forest of ``seed``, learnt from
    one partition, and the partition's label codes (targets, for regression:
    ``classes`` None)."""
    X, y = partition_data(X_part, y_part)
    if classes is None:
        labels = check_array(y, dtype=np.float64, ensure_2d=False)
        if not np.all(np.abs(labels) <= MAX_TARGET):
            raise ValueError(f"y holds values beyond +-{MAX_TARGET:g}; rescale the targets.")
    else:
        # Codes over the global classes: a partition lacking a class still
        # learns with the forest's class count.
        labels = np.searchsorted(classes, y).astype(np.int32)
    weights = None if class_factors is None else class_factors[labels]
    if weights is not None and not np.any(weights > 0):
        raise ValueError("every sample of a partition weighs 0 under class_weight; weigh its classes above 0.")
    X, _ = weighed_medians(X, weights)
    data = prepare(
        learning_features(X, settings), labels, n_classes=0 if classes is None else len(classes), settings=settings
    )
    trees = learn_trees(
        data, first_tree=first_tree, last_tree=last_tree, seed=seed, settings=settings, sample_weight=weights
    )
    return (*trees, labels)


def predict_block(block, forest, method):
    """One block's predictions; an empty block (a filtered partition) gives
    an empty result of the right shape."""
    if len(block) == 0:
        if method != "predict":
            return np.empty((0, forest.n_classes_))
        return np.empty((0,), dtype=forest.classes_.dtype if hasattr(forest, "classes_") else np.float64)
    with warnings.catch_warnings():
        # Already warned once on the client for the whole collection.
        warnings.filterwarnings("ignore", message="X does not have valid feature names")
        return getattr(forest, method)(block)
