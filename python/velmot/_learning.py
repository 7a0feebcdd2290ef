"""Learning a forest through the compiled module, reproducibly.

The module's generator pool is process-wide: ``set_seed`` rebuilds it and
every learning call draws from it. A forest is therefore learnt as a fixed
sequence of calls ("chunks"), each preceded by ``set_seed`` with a seed drawn
from the estimator's ``random_state``, and each seed-and-learn pair runs under
one lock so that fits from several Python threads cannot interleave inside it.
The chunk plan depends only on the number of trees and threads, never on
whether a progress bar is shown, so the forest is the same either way.
"""

import threading

import numpy as np
import PyVelmot_wrap
from sklearn.utils import check_random_state
from tqdm import tqdm

from ._features import MODULE_LETTERS

CRITERION_SUFFIXES = {
    "gini": "gini",
    "entropy": "infogain",
    "log_loss": "infogain",
    "gain_ratio": "gainratio",
}

# Seeds are drawn in [1, 2**31 - 1]: the module takes the low 32 bits of the
# seed and treats 0 as "seed from the system's entropy source".
_MAX_SEED = 2**31 - 1

# About this many calls per forest: fine enough for a progress bar, coarse
# enough that each call's fixed costs (the barrier at the end of its parallel
# region, the trees' conversion) stay small. Copying, imputing and ranking
# the matrix happen once per fit (see prepared_once).
_CALLS_PER_FOREST = 10

_POOL_LOCK = threading.Lock()


class _PreparedMatrix(np.ndarray):
    """A read-only view of a fit's feature matrix on which the module keeps
    its preparation of the features (copy, imputation, ranks) from one
    learning call to the next, instead of redoing it for every chunk. The
    module stores it in this attribute; it goes with the view at the end of
    the fit."""

    _velmot_prepared = None


def prepared_once(features):
    """A view of ``features`` that the module prepares once for all chunks."""
    view = features.view(_PreparedMatrix)
    view.flags.writeable = False
    return view


def plan_chunks(n_trees, n_threads):
    """Sizes of the successive learning calls: each a multiple of n_threads
    (so that every thread learns as many trees), the last one shorter."""
    per_thread = -(-n_trees // (n_threads * _CALLS_PER_FOREST))
    size = n_threads * per_thread
    return [min(size, n_trees - start) for start in range(0, n_trees, size)]


def draw_chunk_seeds(random_state, count):
    """One non-zero pool seed per chunk; fresh entropy when random_state is None."""
    if random_state is None:
        return np.random.default_rng().integers(1, _MAX_SEED, size=count, endpoint=True)
    return check_random_state(random_state).randint(1, _MAX_SEED + 1, size=count)


def learn_chunk(features, labels, *, n_classes, n_trees, seed, settings):
    """One learning call from a freshly seeded pool: (tree arrays, importances).

    The importances are NaN when a tree of the call found no informative split.
    """
    letter = MODULE_LETTERS[features.dtype]
    learner = getattr(PyVelmot_wrap, f"learn_{letter}i_{CRITERION_SUFFIXES[settings.criterion]}")
    with _POOL_LOCK:
        PyVelmot_wrap.set_seed(int(seed))
        return learner(
            features,
            labels,
            n_classes,
            n_trees,
            settings.sampling_prop,
            settings.features_per_split,
            settings.max_depth,
            settings.n_threads,
            1,
        )


def learn_forest(features, labels, *, n_classes, n_trees, settings, random_state, verbose):
    """Learn n_trees trees; return (list of tree arrays, importances or None).

    ``features`` is feature-major in one of the module's element types and
    ``labels`` an int32 vector of codes below n_classes.
    """
    sizes = plan_chunks(n_trees, settings.n_threads)
    seeds = draw_chunk_seeds(random_state, len(sizes))
    features = prepared_once(features)
    blocks = []
    with tqdm(total=n_trees, unit="tree", desc="Learning trees", disable=verbose <= 0) as progress:
        for size, seed in zip(sizes, seeds):
            blocks.append(
                learn_chunk(features, labels, n_classes=n_classes, n_trees=size, seed=seed, settings=settings)
            )
            progress.update(size)
    return merge_blocks(sizes, blocks)


def merge_blocks(sizes, blocks):
    """Join blocks of (trees, importances) in block order: (trees, mean
    importances or None).

    Importances are the mean over trees of each tree's normalised
    importances. A tree that found no informative split has none (the module
    reports NaN for the whole call that learnt it); such blocks are left out
    of the mean, and if every block is, the result is None.
    """
    trees = []
    importance_sum = None
    trees_with_importances = 0
    for size, (block_trees, importances) in zip(sizes, blocks):
        trees.extend(block_trees)
        if not np.isnan(importances).any():
            weighted = size * np.asarray(importances, dtype=np.float64)
            importance_sum = weighted if importance_sum is None else importance_sum + weighted
            trees_with_importances += size
    if trees_with_importances == 0:
        return trees, None
    return trees, importance_sum / trees_with_importances
