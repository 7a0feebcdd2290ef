"""Sample and class weights, combined into the one weight per sample that
the bootstrap draws in proportion to."""

from numbers import Real

import numpy as np
from sklearn.utils.validation import _check_sample_weight


def class_weight_factors(class_weight, classes, counts):
    """Per-class factors (in ``classes`` order, with ``counts`` samples each)
    for a class_weight setting: "balanced" (and "balanced_subsample") weigh
    each class by n_samples / (n_classes x its count), a dict weighs the
    classes it names (others 1)."""
    if isinstance(class_weight, str):
        with np.errstate(divide="ignore"):
            return np.sum(counts) / (len(classes) * np.asarray(counts, dtype=np.float64))
    unknown = [key for key in class_weight if not np.any(classes.astype(object) == key)]
    if unknown:
        raise ValueError(f"class_weight names classes that are not in y: {unknown!r}; name only classes of y.")
    factors = np.ones(len(classes))
    for key, value in class_weight.items():
        if not isinstance(value, Real) or isinstance(value, bool) or not np.isfinite(value) or value < 0:
            raise ValueError(f"class_weight[{key!r}] is {value!r}; class weights must be finite numbers, 0 or more.")
        factors[np.flatnonzero(classes.astype(object) == key)] = value
    return factors


def sample_weights(sample_weight, class_weight, X, classes, codes):
    """One float64 weight per sample, or None when neither is given.

    ValueError for weights that are negative, NaN, infinite, of the wrong
    shape, or all zero."""
    if sample_weight is None and class_weight is None:
        return None
    weights = np.ones(len(codes))
    if sample_weight is not None:
        weights = _check_sample_weight(sample_weight, X, dtype=np.float64, ensure_non_negative=True, copy=True)
    if class_weight is not None:
        with np.errstate(over="ignore"):
            factors = class_weight_factors(class_weight, classes, np.bincount(codes, minlength=len(classes)))
            weights = weights * factors[codes]
    if not np.all(np.isfinite(weights)):
        raise ValueError("sample weights times class weights overflow to infinity; use smaller weights.")
    if not np.any(weights > 0):
        raise ValueError("every sample weight is 0 (after class_weight): at least one sample must weigh more.")
    return np.ascontiguousarray(weights)
