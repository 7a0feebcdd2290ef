"""How feature matrices reach the compiled module.

The module reads four element types (letters ``i``, ``d``, ``s``, ``b``) and
takes matrices feature-major, with any strides. Everything here exists so that
a matrix that already fits is handed over as a transposed view, never copied,
and so that every other matrix is converted by one fixed, documented rule.

The layout a fit learns from: each feature's values contiguous, features one
after another, in one of the four element types, without NaN; in numpy terms
an (n_samples, n_features) matrix in Fortran order
(``np.empty((n_samples, n_features), dtype, order="F")``), whose transposed
view is C-contiguous. Such a matrix is learnt from in place; any other is
copied once into that layout by the core (NaN imputed in the copy) before
it is ranked. A reader that fills a matrix column by column should allocate
it that way.
"""

import numpy as np

# The module's letter for each element type it reads.
MODULE_LETTERS = {
    np.dtype(np.int32): "i",
    np.dtype(np.float64): "d",
    np.dtype(np.float32): "s",
    np.dtype(np.uint8): "b",
}

_INT32_MIN = np.iinfo(np.int32).min
_INT32_MAX = np.iinfo(np.int32).max

# The imputation median is computed over blocks of columns so that memory
# stays bounded by this many elements, whatever the matrix size.
_MEDIAN_BLOCK_ELEMENTS = 1 << 22


def as_module_dtype(X):
    """Return X in an element type the module reads, copying only if needed.

    The rule: int32, float64, float32 and uint8 are kept as they are; bool is
    viewed as uint8; narrower integers become int32; wider integers become
    int32 when every value fits, float64 otherwise; float16 becomes float32
    and any other floating type float64. All of these except the last two
    integer cases and long double are exact.
    """
    dtype = X.dtype
    if dtype in MODULE_LETTERS:
        return X
    if dtype == np.bool_:
        return X.view(np.uint8)
    if dtype.kind in "iu":
        if dtype.itemsize < 4:
            return X.astype(np.int32)
        if X.size == 0 or (X.min() >= _INT32_MIN and X.max() <= _INT32_MAX):
            return X.astype(np.int32)
        return X.astype(np.float64)
    if dtype.kind == "f":
        return X.astype(np.float32 if dtype.itemsize < 4 else np.float64)
    raise TypeError(f"features of dtype {dtype} are not supported; pass a numeric matrix")


def feature_major(X):
    """The (n_features, n_samples) view the module expects; never a copy."""
    return X.T


def feature_major_with_constant_row(X):
    """A feature-major copy of X with one extra, constant feature appended.

    The module's all-features mode never ends its search on a node where a
    feature is constant, so asking for every feature is turned into asking
    for all real features out of one more: the random mode then evaluates
    every real feature and stops once the constant one is exhausted too.
    """
    n_samples, n_features = X.shape
    out = np.empty((n_features + 1, n_samples), dtype=X.dtype)
    out[:n_features] = X.T
    out[n_features] = 0
    return out


def learning_features(X, settings):
    """The feature-major matrix a fit learns from: with a constant row when
    every feature is asked for under a classification criterion, whose
    all-features search would not end (the squared-error search does)."""
    if settings.all_features and settings.criterion != "squared_error":
        return feature_major_with_constant_row(X)
    return feature_major(X)


def upper_medians(X):
    """Per-column value that replaces NaN at prediction, fixed at fit time.

    The library's own imputation rule, in numpy: the value at position
    k // 2 of the k sorted present values (the upper of the two middle values
    for even k), 0 for a column with no present value. Integer and byte
    matrices hold no NaN while learning, but a prediction may pass floats
    with NaN to such a model; their medians serve it. Written here rather
    than called from the library because it runs on the package's own
    row-major matrix, block by block, without the module's feature-major copy.
    """
    n_samples, n_features = X.shape
    medians = np.zeros(n_features, dtype=np.float64)
    block = max(1, _MEDIAN_BLOCK_ELEMENTS // max(n_samples, 1))
    for start in range(0, n_features, block):
        columns = np.array(X[:, start : start + block], dtype=X.dtype, order="F")
        for offset in range(columns.shape[1]):
            column = columns[:, offset]
            present = column[~np.isnan(column)] if X.dtype.kind == "f" else column
            if present.size:
                middle = present.size // 2
                medians[start + offset] = np.partition(present, middle)[middle]
    return medians


def medians_left_to_ranking(X):
    """upper_medians(X) where the ranking cannot give them, NaN where it can
    (with_ranked_medians fills those in once the training set is ranked).

    The ranking sorts every column anyway, so reading its middle value
    saves a selection and a column-major copy of X. It cannot serve a
    column holding NaN, since it ranks the imputed values, nor bytes, which
    are not ranked.
    """
    if X.dtype == np.uint8:
        return upper_medians(X)
    medians = np.full(X.shape[1], np.nan)
    if X.dtype.kind == "f" and np.isnan(X).any():
        holding_nan = np.isnan(X).any(axis=0)
        medians[holding_nan] = upper_medians(X[:, holding_nan])
    return medians


def with_ranked_medians(medians, ranked, features):
    """medians with each NaN replaced by the ranking's median of its column
    (``ranked``: the prepared set's ``upper_medians``; ``features``: the
    feature-major matrix it was prepared from), or by numpy's where the
    column was not ranked after all (the ranks did not fit in memory).

    The two agree to the bit, but for the sign of a zero median in a column
    holding both zeros: they compare equal and predict the same.
    """
    n_features = len(medians)
    medians = np.where(np.isnan(medians), ranked[:n_features], medians)
    unranked = np.isnan(medians)
    if unranked.any():
        medians[unranked] = upper_medians(features[:n_features].T[:, unranked])
    return medians


def check_splittable(X):
    """Refuse floating values so large that the midpoint of two of them,
    a split's threshold, overflows to infinity."""
    if X.dtype.kind != "f" or X.size == 0:
        return
    limit = np.finfo(X.dtype).max / 2
    if np.fmax.reduce(X, axis=None) > limit or np.fmin.reduce(X, axis=None) < -limit:
        raise ValueError(
            f"X holds values beyond +-{limit:.3g}, too large for {X.dtype} thresholds (the midpoint of two such "
            "values overflows); rescale the features."
        )


def fill_missing(X, medians):
    """X with each NaN replaced by its column's training median.

    Returns X itself when nothing is missing, so the common case stays a view.
    """
    if X.dtype.kind != "f":
        return X
    missing = np.isnan(X)
    if not missing.any():
        return X
    if medians is None:
        raise ValueError(
            "X holds NaN, but this model was saved without values to fill them (an older file of a model "
            "trained on integer features); replace the NaN before predicting."
        )
    filled = X.copy()
    rows, columns = np.nonzero(missing)
    filled[rows, columns] = medians[columns].astype(X.dtype)
    return filled
