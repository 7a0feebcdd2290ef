"""The forest of ``velmot train``, learnt and saved without the estimator
classes: they derive from scikit-learn's, whose import alone costs the
command about a second and 100 MiB. Training takes the estimators' own
steps (settings, conversions, the one core call) and writes the model file
entries their ``save`` writes, so the package loads these files and the
two give the same forest. Weights and out-of-bag scores go through the
package's functions for them, which import scikit-learn when asked for.
"""

from dataclasses import dataclass
from types import SimpleNamespace

import numpy as np

from ._features import as_module_dtype, check_splittable, learning_features, upper_medians
from ._learning import learn_forest
from ._model_file import write_model_file
from ._nodes import ForestNodes
from ._settings import resolve_settings

# The estimators' parameters that the command line leaves at their defaults.
_DEFAULTS = {"max_samples": None, "min_samples_split": 2, "min_impurity_decrease": 0.0}
# Targets beyond this magnitude would overflow the squared-error sums.
MAX_TARGET = 1e100


@dataclass(frozen=True)
class LearntForest:
    """A forest as the estimators' fit leaves it: classes None for real
    targets, oob_score None unless asked for."""

    task: str
    params: dict
    n_features: int
    classes: np.ndarray
    nodes: ForestNodes
    importances: np.ndarray
    missing_value_fill: np.ndarray
    oob_score: float


def learn(X, y, params, *, regression, sample_weight=None):
    """The forest that RandomForestRegressor(**params) (regression) or
    RandomForestClassifier(**params) learns from X (n_samples, n_features;
    numbers without infinities) and y (class codes or real targets), with
    params already checked as the estimators check them."""
    params = dict(sorted({**_DEFAULTS, **params}.items()))  # get_params' order
    settings = resolve_settings(SimpleNamespace(**params), *X.shape)
    if regression:
        if not np.all(np.abs(y) <= MAX_TARGET):
            raise ValueError(f"the targets hold values that are not finite or beyond +-{MAX_TARGET:g}")
        classes, labels, n_classes = None, np.ascontiguousarray(y, dtype=np.float64), 0
    else:
        classes, codes = np.unique(y, return_inverse=True)
        labels, n_classes = np.ascontiguousarray(codes, dtype=np.int32), len(classes)
    weights, X = None, as_module_dtype(X)
    check_splittable(X)
    if sample_weight is None and params.get("class_weight") is None:
        medians = upper_medians(X)
    else:
        from ._forest import weighed_medians
        from ._weights import sample_weights

        weights = sample_weights(sample_weight, params.get("class_weight"), X, classes, labels)
        X, medians = weighed_medians(X, weights)
    n_features = X.shape[1]
    nodes, importances, out_of_bag = learn_forest(
        learning_features(X, settings),
        labels,
        n_classes=n_classes,
        n_trees=params["n_estimators"],
        settings=settings,
        random_state=params["random_state"],
        verbose=params["verbose"],
        sample_weight=weights,
    )
    importances = np.zeros(n_features) if importances is None else np.array(importances[:n_features])
    task = "regression" if regression else "classification"
    return LearntForest(
        task, params, n_features, classes, nodes, importances, medians, _oob_score(out_of_bag, labels, classes)
    )


def _oob_score(out_of_bag, labels, classes):
    if out_of_bag is None:
        return None
    from ._out_of_bag import out_of_bag_estimates, out_of_bag_predictions

    if classes is None:
        return out_of_bag_predictions(out_of_bag["oob_counts"], out_of_bag["oob_sums"], labels, True)[1]
    return out_of_bag_estimates(out_of_bag["oob_votes"], labels, classes, True)[1]


def save(forest, path, extra):
    """Write the model file the estimator's save() writes, with the entries
    of ``extra`` (name -> array) beside its own."""
    nodes = forest.nodes
    # Every tree's five rows side by side: the trees_ arrays, concatenated.
    rows = np.array([nodes.left, nodes.right, nodes.feature, nodes.threshold, nodes.value], dtype=np.float64)
    arrays = {
        **({} if forest.classes is None else {"classes": forest.classes}),
        "nodes": rows,
        "tree_sizes": np.diff(nodes.offsets),
        "node_counts": nodes.count,
        "node_impurities": nodes.impurity,
        "feature_importances": forest.importances,
        "missing_value_fill": np.asarray(forest.missing_value_fill, dtype=np.float64),
        **extra,
    }
    metadata = {"task": forest.task, "params": forest.params, "n_features_in": forest.n_features}
    write_model_file(path, arrays, metadata)
