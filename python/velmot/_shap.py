"""Shapley values of a fitted forest's output (``forest.shap_values``),
computed by the core's exact TreeSHAP over the in-bag node counts.

A classifier's output is its vote fractions, one column per class; a
regressor's its prediction. The expected value is what the output is
before any feature is known: the mean over the trees of their leaves'
outputs, each weighted by its share of the root's in-bag count. For every
sample, the expected value plus the sum of its Shapley values is the
forest's output.
"""

import numpy as np

from . import _core


def _is_regression(forest):
    return getattr(forest, "_TASK", "classification") == "regression"


def leaf_outputs(forest):
    """(output column of each node's leaf, the leaf's output, the number of
    outputs), by the forest's task."""
    nodes = forest.nodes_
    if _is_regression(forest):
        return np.zeros(len(nodes.left), dtype=np.int32), nodes.value.astype(np.float64), 1
    return nodes.value, np.ones(len(nodes.left)), len(forest.classes_)


def expected_value(forest):
    """The output before any feature is known: one value per class, or a
    regressor's one value."""
    nodes = forest.nodes_
    columns, outputs, n_outputs = leaf_outputs(forest)
    tree_of = np.repeat(np.arange(nodes.n_trees), np.diff(nodes.offsets))
    leaf = nodes.left < 0
    share = nodes.count[leaf] / nodes.count[nodes.offsets[:-1]][tree_of[leaf]]
    total = np.zeros(n_outputs)
    np.add.at(total, columns[leaf], share * outputs[leaf])
    total /= nodes.n_trees
    return float(total[0]) if _is_regression(forest) else total


def shap_values(forest, samples, n_threads):
    """Shapley values (n_samples, n_features, n_classes), or (n_samples,
    n_features) for a regressor, of samples already converted and filled as
    prediction does."""
    nodes = forest.nodes_
    if not np.all(nodes.count > 0):
        raise ValueError(
            "this forest has no in-bag node counts (it was saved without them); fit it again to explain it"
        )
    columns, outputs, n_outputs = leaf_outputs(forest)
    arrays = {**nodes.as_dict(), "value": columns, "leaf_output": outputs}
    values = _core.shap_values(arrays, samples, n_outputs, n_threads) / nodes.n_trees
    return values[:, :, 0] if _is_regression(forest) else values
