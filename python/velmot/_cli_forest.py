"""The command line's forests, learnt, saved, loaded and predicted from
without the estimator classes: they derive from scikit-learn's, whose
import alone costs the command about a second and 100 MiB. Training takes
the estimators' own steps (settings, conversions, the one core call) and
writes the model file entries their ``save`` writes, so the package loads
these files and the two give the same forest. Loading checks what
prediction reads as ``velmot.load`` checks it, and leaves the rest (the
parameters but the thread count, the node statistics) unread. Weights and
out-of-bag scores go through the package's functions for them, which
import scikit-learn when asked for.
"""

from dataclasses import dataclass
from types import SimpleNamespace

import numpy as np

from . import _core
from ._features import as_module_dtype, check_splittable, fill_missing, learning_features, upper_medians
from ._fork import threads_for_call
from ._learning import learn_forest
from ._model_file import check, checked_classes, float_vector, read_model_file, split_trees, write_model_file
from ._nodes import ForestNodes, RegressionNodes
from ._settings import POOL_SIZE, resolve_settings, thread_count

# The estimators' parameters that the command line leaves at their defaults.
_DEFAULTS = {"max_samples": None, "min_samples_split": 2, "min_impurity_decrease": 0.0}
# Targets beyond this magnitude would overflow the squared-error sums.
MAX_TARGET = 1e100


@dataclass(frozen=True)
class LearntForest:
    """A forest as the estimators' fit leaves it, under their attributes'
    names: classes_ None for real targets, oob_score_ None unless asked for."""

    task: str
    params: dict
    n_features_in_: int
    classes_: np.ndarray
    nodes: ForestNodes
    importances: np.ndarray
    missing_value_fill: np.ndarray
    oob_score_: float = None

    def predict(self, X):
        """The estimators' predict of X, whose columns are the forest's features."""
        if self.classes_ is None:
            samples, n_threads = self._samples(X)
            return _core.predict_mean(self.nodes.prepared(0, n_threads), samples, n_threads)
        return self.classes_[self._predict_codes_or_proba(X, proba=False)]

    def predict_proba(self, X):
        return self._predict_codes_or_proba(X, proba=True)

    def _predict_codes_or_proba(self, X, *, proba):
        samples, n_threads = self._samples(X)
        n_classes = len(self.classes_)
        return _core.predict(self.nodes.prepared(n_classes, n_threads), samples, n_classes, n_threads, proba)

    def _samples(self, X):
        n_threads = threads_for_call(thread_count(self.params.get("n_jobs")))
        return fill_missing(as_module_dtype(X), self.missing_value_fill), n_threads


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


# The entries prediction reads, besides the caller's own.
_ENTRIES = ("classes", "nodes", "tree_sizes", "feature_importances", "missing_value_fill")


def load(path, extra):
    """(LearntForest, {name: array}) of a model file and its ``extra``
    entries, each of which must be present; ValueError for a damaged file."""
    arrays, metadata = read_model_file(path, [*_ENTRIES, *extra])
    task = metadata.get("task", "classification")
    check(task in ("classification", "regression"), f"unknown task {task!r}")
    for name in ("nodes", "tree_sizes", "feature_importances", *extra):
        check(name in arrays, f"missing {name}")
    n_jobs, n_features = metadata["params"].get("n_jobs"), metadata["n_features_in"]
    check(
        n_jobs is None or type(n_jobs) is int and (n_jobs <= -1 or 1 <= n_jobs <= POOL_SIZE),
        f"n_jobs {n_jobs!r} is not a thread count",
    )
    classes = None if task == "regression" else checked_classes(arrays)
    trees = split_trees(arrays["nodes"], arrays["tree_sizes"], n_features, None if classes is None else len(classes))
    nodes = (RegressionNodes if classes is None else ForestNodes).from_tree_arrays(trees)
    importances = float_vector(arrays["feature_importances"], n_features, "feature_importances")
    fill = arrays.get("missing_value_fill")
    fill = None if fill is None else float_vector(fill, n_features, "missing_value_fill")
    forest = LearntForest(task, metadata["params"], n_features, classes, nodes, importances, fill)
    return forest, {name: arrays[name] for name in extra}


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
    arrays = {
        **({} if forest.classes_ is None else {"classes": forest.classes_}),
        "nodes": nodes.encoded(),
        "tree_sizes": np.diff(nodes.offsets),
        "node_counts": nodes.count,
        "node_impurities": nodes.impurity,
        "feature_importances": forest.importances,
        "missing_value_fill": np.asarray(forest.missing_value_fill, dtype=np.float64),
        **extra,
    }
    metadata = {"task": forest.task, "params": forest.params, "n_features_in": forest.n_features_in_}
    write_model_file(path, arrays, metadata)
