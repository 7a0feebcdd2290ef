"""Learning a forest through ``velmot._core``, reproducibly.

Tree k of a forest is grown from a generator made from (seed, k) alone, so a
forest depends on the seed and the data only: not on the number of threads,
nor on how trees are scheduled over them, nor on how they are split into
calls (``velmot.dask`` learns blocks of tree indices). The data are
prepared once (copied, imputed, ranked) and one call learns all of a fit's
trees with the GIL released; progress and Ctrl-C are handled inside it.
"""

import contextlib
import secrets
from numbers import Integral

import numpy as np

from . import _core
from ._fork import threads_for_call
from ._nodes import ForestNodes, RegressionNodes

CRITERION_NAMES = {
    "gini": "gini",
    "entropy": "infogain",
    "log_loss": "infogain",
    "gain_ratio": "gainratio",
    "squared_error": "squared_error",
}


def forest_seed(random_state):
    """The core's 64-bit seed: an int is the seed itself, a RandomState
    instance is drawn from once, None draws fresh entropy."""
    if random_state is None:
        return secrets.randbits(64)
    if isinstance(random_state, Integral):
        return int(random_state)
    from sklearn.utils import check_random_state  # off the command line's path: a second to import

    return int(check_random_state(random_state).randint(0, 2**32, dtype=np.uint64))


def prepare(features, labels, *, n_classes, settings, in_place=True):
    """The training set prepared once for any number of learning calls.

    ``features`` is feature-major in one of the four element types,
    ``labels`` int32 codes below n_classes, or float64 targets with
    n_classes 0. With ``in_place``, features already in the layout the
    core learns from (``_features``) are read where they are, not copied,
    and stay referenced by the prepared set."""
    return _core.TrainingData(features, labels, n_classes, threads_for_call(settings.n_threads), in_place)


def learn_trees(
    data, *, first_tree, last_tree, seed, settings, on_progress=None, sample_weight=None, lay_out=False, last_use=False
):
    """Trees [first_tree, last_tree) of the forest of ``seed``: (ForestNodes,
    per-tree importance rows, NaN rows for trees without an informative
    split, out-of-bag estimates or None: {"oob_votes": per sample and class}
    for classes, {"oob_counts": trees per sample, "oob_sums": their
    predictions summed in tree order} for targets). With ``lay_out``, the
    nodes come with their prediction layout, made as the trees are grown.
    With ``last_use``, ``data`` is freed as soon as the trees are grown,
    before the forest is written beside it, and refuses later calls."""
    result = _core.learn(
        data,
        criterion=CRITERION_NAMES[settings.criterion],
        seed=seed,
        first_tree=first_tree,
        last_tree=last_tree,
        sample_prop=settings.sampling_prop,
        features_per_split=settings.features_per_split,
        max_depth=settings.max_depth,
        n_threads=threads_for_call(settings.n_threads),
        on_progress=on_progress,
        **settings.controls(),
        sample_weight=sample_weight,
        prepare=lay_out,
        last_use=last_use,
    )
    importances = result.pop("importances")
    prepared = result.pop("prepared", None)
    out_of_bag = {name: result.pop(name) for name in ("oob_votes", "oob_counts", "oob_sums") if name in result}
    nodes = (RegressionNodes if settings.criterion == "squared_error" else ForestNodes)(**result)
    if prepared is not None:
        nodes.keep_prepared(prepared)
    return nodes, importances, out_of_bag or None


def learn_forest(
    features, labels, *, n_classes, n_trees, settings, random_state, verbose, sample_weight=None, lay_out=False
):
    """Learn n_trees trees in one call: (ForestNodes, importances or None,
    out-of-bag estimates or None); with ``lay_out``, the nodes come with
    their prediction layout (for an estimator, which predicts in-process)."""
    data = prepare(features, labels, n_classes=n_classes, settings=settings)
    return learn_prepared_forest(
        data,
        n_trees=n_trees,
        settings=settings,
        random_state=random_state,
        verbose=verbose,
        sample_weight=sample_weight,
        lay_out=lay_out,
    )


def learn_prepared_forest(data, *, n_trees, settings, random_state, verbose, sample_weight=None, lay_out=False):
    """learn_forest over a training set already prepared."""
    with _progress_bar(n_trees, verbose) as progress:
        nodes, rows, out_of_bag = learn_trees(
            data,
            first_tree=0,
            last_tree=n_trees,
            seed=forest_seed(random_state),
            settings=settings,
            on_progress=(lambda done: progress.update(done - progress.n)) if verbose > 0 else None,
            sample_weight=sample_weight,
            lay_out=lay_out,
            last_use=True,  # the set was prepared for this call alone
        )
    return nodes, mean_importances(rows), out_of_bag


def _progress_bar(n_trees, verbose):
    """tqdm's bar when verbose, imported only then: its import takes 80 ms."""
    if verbose <= 0:
        return contextlib.nullcontext()
    from tqdm import tqdm

    return tqdm(total=n_trees, unit="tree", desc="Learning trees")


def mean_importances(rows):
    """The mean of the trees' normalised importances, trees in order, those
    without an informative split (NaN rows) left out; None if none has one.

    Rows are added one after another in tree order, so the sum does not
    depend on how the trees were learnt or joined."""
    informative = rows[~np.isnan(rows).any(axis=1)]
    if len(informative) == 0:
        return None
    total = np.zeros(rows.shape[1])
    for row in informative:
        total += row
    return total / len(informative)
