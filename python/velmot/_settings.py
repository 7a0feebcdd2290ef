"""An estimator's parameters resolved against the data they learn from.

The local estimator and ``velmot.dask`` both learn through this one object,
so a parameter means the same thing, with the same errors, in either.
"""

import math
import os
from dataclasses import dataclass
from numbers import Integral

import numpy as np

# The module reads labels through a signed 32-bit byte offset.
MAX_SAMPLES = (2**31 - 1) // np.dtype(np.int32).itemsize
MAX_INT32 = 2**31 - 1

# The most threads a fit or a prediction runs on (the module's generator
# pool holds this many, and the package keeps the module's limit).
POOL_SIZE = 32

# Bytes a fitted tree takes at the very least (a one-node array and its
# Python object): enough to refuse a tree count that cannot fit in memory
# before any tree is learnt.
_MIN_TREE_BYTES = 160


@dataclass(frozen=True)
class ForestSettings:
    """The learning call's arguments other than the data and seeds."""

    features_per_split: int
    all_features: bool
    sampling_prop: float
    max_depth: int  # 0: no limit
    n_threads: int
    criterion: str
    # Growth limits in in-bag samples; the defaults are the library's rule.
    min_leaf_size: int = 1  # a node of at most this many becomes a leaf
    min_samples_leaf: int = 0  # 0: the library's rule (see PAIRS)
    min_impurity_decrease: float = 0.0
    out_of_bag: bool = False  # tally out-of-bag votes while learning

    def controls(self):
        """The learning call's growth-limit and out-of-bag arguments."""
        return {
            "min_leaf_size": self.min_leaf_size,
            "min_samples_leaf": self.min_samples_leaf,
            "min_impurity_decrease": self.min_impurity_decrease,
            "out_of_bag": self.out_of_bag,
        }


def resolve_settings(estimator, n_samples, n_features):
    """ForestSettings for ``estimator``'s parameters on an n_samples x
    n_features training set; ValueError naming the parameter that cannot
    be met."""
    if n_samples > MAX_SAMPLES:
        raise ValueError(f"X has {n_samples} samples; the library accepts at most {MAX_SAMPLES}.")
    check_tree_count(estimator.n_estimators)
    features_per_split = _features_per_split(estimator.max_features, n_features)
    all_features = features_per_split >= n_features
    return ForestSettings(
        features_per_split=n_features if all_features else features_per_split,
        all_features=all_features,
        sampling_prop=sampling_proportion(_bootstrap_size(estimator.max_samples, n_samples), n_samples),
        max_depth=0 if estimator.max_depth is None else min(estimator.max_depth, MAX_INT32),
        n_threads=thread_count(estimator.n_jobs),
        criterion=estimator.criterion,
        min_leaf_size=_samples(estimator.min_samples_split, n_samples, least=2) - 1,
        min_samples_leaf=0 if estimator.min_samples_leaf == PAIRS else _samples(estimator.min_samples_leaf, n_samples),
        min_impurity_decrease=float(estimator.min_impurity_decrease),
        out_of_bag=bool(getattr(estimator, "oob_score", False)),
    )


# The min_samples_leaf value of the library's own growth rule: the split
# search ignores the sizes of a split's sides, and a node keeps its best
# split only when both children hold two in-bag samples or more.
PAIRS = "pairs"


def _samples(limit, n_samples, least=1):
    """An int limit as it is (within int32), a fraction of n_samples rounded
    up, never below ``least``."""
    count = limit if isinstance(limit, Integral) else math.ceil(limit * n_samples)
    return int(max(least, min(count, MAX_INT32)))


def check_tree_count(n_estimators):
    memory = _physical_memory()
    if memory is not None and n_estimators * _MIN_TREE_BYTES > memory:
        raise ValueError(
            f"n_estimators={n_estimators} trees cannot fit in this machine's {memory / 2**30:.0f} GiB of memory "
            "(each takes at least a few hundred bytes); ask for fewer trees."
        )


def thread_count(n_jobs):
    """Threads for n_jobs: None is 1, -1 all cores, -2 all but one, ..."""
    if n_jobs is None:
        return 1
    if n_jobs > 0:
        return int(n_jobs)
    cores = len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1
    return max(1, min(POOL_SIZE, cores + 1 + int(n_jobs)))


def sampling_proportion(count, n_samples):
    """The proportion whose product with n_samples truncates to exactly count.

    The library draws int(proportion * n_samples) instances; count / n_samples
    can fall a hair short of count after the multiplication.
    """
    proportion = count / n_samples
    while int(proportion * n_samples) < count:
        proportion = float(np.nextafter(proportion, math.inf))
    return proportion


def _features_per_split(max_features, n_features):
    if max_features is None:
        return n_features
    if max_features == "sqrt":
        return max(1, int(math.sqrt(n_features)))
    if max_features == "log2":
        return max(1, int(math.log2(n_features)))
    if isinstance(max_features, Integral):
        if max_features > n_features:
            raise ValueError(
                f"max_features={max_features} is more than the {n_features} features of X; "
                "pass at most n_features, or None for all."
            )
        return int(max_features)
    return max(1, int(max_features * n_features))


def _bootstrap_size(max_samples, n_samples):
    if max_samples is None:
        return n_samples
    if isinstance(max_samples, Integral):
        if max_samples > n_samples:
            raise ValueError(
                f"max_samples={max_samples} is more than the {n_samples} samples of X; "
                "pass at most n_samples, or a fraction."
            )
        return int(max_samples)
    return max(1, round(max_samples * n_samples))


def _physical_memory():
    try:
        return os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES")
    except (ValueError, OSError, AttributeError):
        return None
