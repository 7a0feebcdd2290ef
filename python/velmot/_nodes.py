"""A fitted forest's nodes as one structure of arrays, as the core learns
and predicts from it."""

import weakref
from dataclasses import dataclass, fields

import numpy as np

from . import _core

_DTYPES = {
    "offsets": np.int64,
    "left": np.int32,
    "right": np.int32,
    "feature": np.int32,
    "threshold": np.float64,
    "value": np.int32,
    "count": np.int64,
    "impurity": np.float64,
}


# ForestNodes -> its PreparedForest; beside the nodes rather than in them,
# so that a fitted estimator pickles and copies as plain arrays.
_PREPARED = weakref.WeakKeyDictionary()


@dataclass(frozen=True, eq=False)
class ForestNodes:
    """Every node of a forest, trees one after another.

    Tree k holds the nodes ``offsets[k]:offsets[k + 1]``, numbered from its
    root at 0 in the breadth-first order of ``trees_``. Per node: ``left``
    and ``right``, the children's numbers within the tree (-1 for none; a
    sample goes left when its ``feature`` value is below ``threshold``);
    ``value``, a leaf's class index (-2 at a split); ``count``, the in-bag
    samples reaching the node, bootstrap copies counted (0 where unknown,
    in forests saved without counts); ``impurity``, their Gini impurity
    (criterion "gini") or entropy in bits (the others), NaN where unknown.
    """

    offsets: np.ndarray
    left: np.ndarray
    right: np.ndarray
    feature: np.ndarray
    threshold: np.ndarray
    value: np.ndarray
    count: np.ndarray
    impurity: np.ndarray

    # A leaf's value: a class index here, a mean target in RegressionNodes.
    _VALUE_DTYPE = np.int32

    def __post_init__(self):
        for name, dtype in {**_DTYPES, "value": self._VALUE_DTYPE}.items():
            object.__setattr__(self, name, np.ascontiguousarray(getattr(self, name), dtype=dtype))

    @property
    def n_trees(self):
        return len(self.offsets) - 1

    def as_dict(self):
        return {field.name: getattr(self, field.name) for field in fields(self)}

    def prepared(self, n_classes, n_threads):
        """The core's checked, laid-out copy of these nodes for prediction,
        made on first use (on n_threads) and kept while the nodes live:
        laying out a large forest costs as much as predicting thousands of
        samples."""
        prepared = _PREPARED.get(self)
        if prepared is None or prepared.n_classes != n_classes:
            prepared = _core.PreparedForest(self.as_dict(), n_classes, n_threads)
            _PREPARED[self] = prepared
        return prepared

    def keep_prepared(self, prepared):
        """Keeps ``prepared`` (made by the learning call) as these nodes'
        PreparedForest."""
        _PREPARED[self] = prepared

    def _rows(self):
        return (self.left, self.right, self.feature, self.threshold, self.value)

    def tree_arrays(self):
        """The trees in the five-row float64 encoding of ``trees_``.

        Each tree is converted on its own: a forest-wide (5, n_nodes) copy
        first would add twice the trees' size to the memory it takes."""
        bounds = zip(self.offsets[:-1], self.offsets[1:])
        return [np.array([row[begin:end] for row in self._rows()], dtype=np.float64) for begin, end in bounds]

    def encoded(self):
        """Every tree's five-row encoding side by side: (5, n_nodes) float64."""
        encoded = np.empty((5, len(self.left)))
        for out, row in zip(encoded, self._rows()):
            out[:] = row
        return encoded

    @classmethod
    def from_tree_arrays(cls, trees):
        """Nodes of five-row trees, without counts or impurities."""
        nodes = np.concatenate(trees, axis=1) if trees else np.empty((5, 0))
        offsets = np.concatenate([[0], np.cumsum([tree.shape[1] for tree in trees], dtype=np.int64)])
        unknown = np.full(nodes.shape[1], np.nan)
        return cls(offsets, *nodes, np.zeros(nodes.shape[1], dtype=np.int64), unknown)

    @classmethod
    def join(cls, parts):
        """The trees of ``parts``, one forest after another."""
        sizes = [part.offsets[-1] for part in parts]
        starts = np.concatenate([[0], np.cumsum(sizes[:-1], dtype=np.int64)])
        offsets = np.concatenate([[0]] + [part.offsets[1:] + start for part, start in zip(parts, starts)])
        return cls(offsets, *(np.concatenate([getattr(part, name) for part in parts]) for name in list(_DTYPES)[1:]))


@dataclass(frozen=True, eq=False)
class RegressionNodes(ForestNodes):
    """A regression forest's nodes: ``value`` is a leaf's mean in-bag target
    (float64; -2 at a split), ``impurity`` the node's mean squared error."""

    _VALUE_DTYPE = np.float64
