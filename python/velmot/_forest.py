"""The scikit-learn classifier over the package's core, and what it shares
with the regressor (``_regressor``): validation, dtype handling, weights,
NaN imputation, learning, prediction's preparation and model files."""

from numbers import Integral, Real

import numpy as np
from scipy.sparse import csr_matrix
from sklearn.base import BaseEstimator, ClassifierMixin
from sklearn.utils._param_validation import Interval, RealNotInt, StrOptions
from sklearn.utils.multiclass import check_classification_targets
from sklearn.utils.validation import check_is_fitted, validate_data

from . import _core
from ._export_explain import ExportExplainMixin
from ._features import (
    as_module_dtype,
    check_splittable,
    fill_missing,
    learning_features,
    medians_left_to_ranking,
    upper_medians,
    with_ranked_medians,
)
from ._fork import threads_for_call
from ._learning import CRITERION_NAMES, learn_prepared_forest, prepare
from ._model_file import check, checked_classes, float_vector, split_trees, write_model_file
from ._nodes import ForestNodes
from ._out_of_bag import out_of_bag_estimates
from ._settings import MAX_INT32, PAIRS, POOL_SIZE, resolve_settings, thread_count
from ._weights import sample_weights

# The parameters every forest takes, with their constraints; each task adds
# its criterion and its own.
FOREST_PARAMETER_CONSTRAINTS = {
    "n_estimators": [Interval(Integral, 1, MAX_INT32, closed="both")],
    "max_features": [
        StrOptions({"sqrt", "log2"}),
        Interval(Integral, 1, None, closed="left"),
        Interval(RealNotInt, 0.0, 1.0, closed="right"),
        None,
    ],
    "max_depth": [Interval(Integral, 1, None, closed="left"), None],
    "max_samples": [
        Interval(Integral, 1, None, closed="left"),
        Interval(RealNotInt, 0.0, 1.0, closed="right"),
        None,
    ],
    "n_jobs": [
        Interval(Integral, 1, POOL_SIZE, closed="both"),
        Interval(Integral, None, -1, closed="right"),
        None,
    ],
    "random_state": ["random_state"],
    "verbose": ["verbose"],
    "min_samples_split": [
        Interval(Integral, 2, None, closed="left"),
        Interval(RealNotInt, 0.0, 1.0, closed="right"),
    ],
    "min_samples_leaf": [
        Interval(Integral, 1, None, closed="left"),
        Interval(RealNotInt, 0.0, 1.0, closed="neither"),
        StrOptions({PAIRS}),
    ],
    "min_impurity_decrease": [Interval(Real, 0.0, None, closed="left")],
    "oob_score": ["boolean", callable],
}


# Parameters that model files written before them do not record, with the
# values those files' forests were learnt under (the library's own leaf
# rule, no other limit), so that such files still load and refit alike.
PARAMETERS_OF_OLDER_FILES = {
    "min_samples_split": 2,
    "min_samples_leaf": PAIRS,
    "min_impurity_decrease": 0.0,
    "oob_score": False,
    "class_weight": None,
}


class ForestEstimator(ExportExplainMixin, BaseEstimator):
    """What every velmot forest does the same way, whatever its task.

    A task's class gives ``_TASK`` (recorded in model files), ``_NODES``
    (its node arrays' class), ``_Y_NUMERIC``, ``_check_targets(y)``,
    ``_encode_targets(y) -> (fitted targets, core labels, n_classes)``,
    ``_sample_weights(sample_weight, X, targets, labels)``,
    ``_set_task_fitted(targets)``, ``_set_out_of_bag(out_of_bag, labels)``
    (its out-of-bag estimates, or None),
    ``_task_arrays()`` and ``_task_from_model(arrays)`` (the model file's
    task-specific entries), and ``_leaf_classes(targets)`` (the class count
    leaves are checked against, None for real values).
    """

    _Y_NUMERIC = False

    def fit(self, X, y, sample_weight=None):
        """Learn the forest from the training set (X, y).

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Training samples. int32, float64, float32 and uint8 matrices are
            used as they are; bool is viewed as uint8; other integer types
            become int32 (float64 if a value does not fit), float16 becomes
            float32 and other numbers float64. The fit learns from a
            Fortran-ordered matrix without NaN in place, and from a copy of
            any other; asking for every feature at each node
            (``max_features`` reaching ``n_features``) costs that copy in
            any case.
        y : array-like of shape (n_samples,)
            Targets: class labels of any type (numbers, strings, bools) for a
            classifier, real values for a regressor.
        sample_weight : array-like of shape (n_samples,) or None, default=None
            Non-negative weights (for a classifier, multiplied by
            ``class_weight``'s); each bootstrap draw picks a sample with
            probability proportional to its weight.

        Returns
        -------
        self : estimator
            The fitted estimator.
        """
        self._validate_params()
        features, targets, labels, n_classes, weights, medians, settings = self._training_inputs(
            X, y, sample_weight, ranked_medians=True
        )
        data = prepare(features, labels, n_classes=n_classes, settings=settings)
        medians = with_ranked_medians(medians, data.upper_medians, features)
        nodes, importances, out_of_bag = learn_prepared_forest(
            data,
            n_trees=self.n_estimators,
            settings=settings,
            random_state=self.random_state,
            verbose=self.verbose,
            sample_weight=weights,
            lay_out=True,
        )
        self._set_fitted(targets, nodes, importances, medians)
        self._set_out_of_bag(out_of_bag, labels)
        return self

    def _training_inputs(self, X, y, sample_weight, ranked_medians=False):
        """X, y and the weights checked and converted for the core:
        (features, targets, labels, n_classes, weights, medians, settings).
        With ``ranked_medians``, the medians are NaN where the ranking of
        the prepared features will give them (``with_ranked_medians``)."""
        X, y = validate_data(self, X, y, dtype="numeric", ensure_all_finite="allow-nan", y_numeric=self._Y_NUMERIC)
        self._check_targets(y)
        # Checks that need the data's shape come before anything is copied.
        settings = resolve_settings(self, *X.shape)
        targets, labels, n_classes = self._encode_targets(y)
        weights = self._sample_weights(sample_weight, X, targets, labels)
        X = as_module_dtype(X)
        check_splittable(X)
        if ranked_medians and (weights is None or np.all(weights > 0)):
            medians = medians_left_to_ranking(X)
        else:
            X, medians = weighed_medians(X, weights)
        return learning_features(X, settings), targets, labels, n_classes, weights, medians, settings

    def _set_fitted(self, targets, nodes, importances, missing_value_fill):
        n_features = self.n_features_in_
        self._set_task_fitted(targets)
        self.nodes_ = nodes
        self.feature_importances_ = np.zeros(n_features) if importances is None else np.array(importances[:n_features])
        self._missing_value_fill_ = missing_value_fill

    @property
    def trees_(self):
        """The trees in the five-row float64 encoding, made from ``nodes_``
        at each read: a fitted forest holds its nodes once."""
        return self.nodes_.tree_arrays()

    def __setstate__(self, state):
        # Pickles of earlier versions hold the trees as ``trees_``, beside
        # ``nodes_`` or alone.
        trees = state.pop("trees_", None)
        if trees is not None and "nodes_" not in state:
            state["nodes_"] = self._NODES.from_tree_arrays(trees)
        super().__setstate__(state)

    def apply(self, X):
        """The leaf each sample reaches in each tree.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.

        Returns
        -------
        leaves : ndarray of shape (n_samples, n_estimators)
            Node numbers within each tree, as ``nodes_`` and ``trees_``
            number them (breadth-first from the root at 0).
        """
        return _core.apply(*self._walk_arguments(X))

    def decision_path(self, X):
        """The nodes each sample passes through, in every tree.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.

        Returns
        -------
        indicator : scipy.sparse.csr_matrix of shape (n_samples, n_nodes)
            1 where the sample passes through the node; columns are the
            forest's nodes, tree after tree.
        n_nodes_ptr : ndarray of shape (n_estimators + 1,)
            Tree k's nodes are the columns ``n_nodes_ptr[k]:n_nodes_ptr[k + 1]``.
        """
        rows, nodes = _core.decision_path(*self._walk_arguments(X))
        shape = (len(rows) - 1, int(self.nodes_.offsets[-1]))
        indicator = csr_matrix((np.ones(len(nodes), dtype=np.int64), nodes, rows), shape=shape)
        return indicator, self.nodes_.offsets.copy()

    def _walk_arguments(self, X):
        """(forest, samples, n_classes or 0 for real values, n_threads) of a
        core call that walks the trees over X."""
        samples, n_threads = self._prepared_samples(X)
        return self.nodes_.as_dict(), samples, self._leaf_classes(getattr(self, "classes_", None)) or 0, n_threads

    def save(self, path):
        """Write the fitted forest to a portable ``.npz`` file, without pickle.

        Parameters
        ----------
        path : str, path-like or binary file object
            Destination; written exactly there, no suffix is added. A path
            is written through a temporary file in the same folder and a
            rename, so a failed save leaves any previous file intact.

        Notes
        -----
        Class labels and feature names are stored as plain numpy arrays
        (object arrays of strings come back as numpy string arrays). A
        RandomState instance given as ``random_state`` cannot be stored and is
        saved as None, and a callable ``oob_score`` as True; the trees
        themselves are saved exactly. Out-of-bag estimates are not saved.

        Examples
        --------
        >>> import velmot
        >>> forest.save("forest.npz")  # doctest: +SKIP
        >>> velmot.load("forest.npz").predict(X)  # doctest: +SKIP
        """
        write_model_file(path, *self._to_model())

    def __sklearn_tags__(self):
        tags = super().__sklearn_tags__()
        tags.input_tags.allow_nan = True
        return tags

    def _prepared_samples(self, X):
        """X checked against the fit, in a dtype the core reads, NaN filled,
        and the thread count of a core call."""
        check_is_fitted(self)
        X = validate_data(self, X, reset=False, dtype="numeric", ensure_all_finite="allow-nan")
        samples = fill_missing(as_module_dtype(X), self._missing_value_fill_)
        return samples, threads_for_call(thread_count(self.n_jobs))

    # -- model files -----------------------------------------------------

    @classmethod
    def _model_entries(cls):
        return (
            "nodes",
            "tree_sizes",
            "node_counts",
            "node_impurities",
            "feature_importances",
            "feature_names",
            "missing_value_fill",
        )

    def _to_model(self):
        """(arrays, metadata) of a model file holding this fitted forest."""
        check_is_fitted(self)
        arrays = {
            **self._task_arrays(),
            "nodes": self.nodes_.encoded(),
            "tree_sizes": np.diff(self.nodes_.offsets),
            "node_counts": self.nodes_.count,
            "node_impurities": self.nodes_.impurity,
            "feature_importances": np.asarray(self.feature_importances_, dtype=np.float64),
            "missing_value_fill": np.asarray(self._missing_value_fill_, dtype=np.float64),
        }
        if self._missing_value_fill_ is None:
            del arrays["missing_value_fill"]
        if hasattr(self, "feature_names_in_"):
            arrays["feature_names"] = _without_objects(self.feature_names_in_, "feature names")
        metadata = {"task": self._TASK, "params": _json_params(self.get_params()), "n_features_in": self.n_features_in_}
        return arrays, metadata

    @classmethod
    def _from_model(cls, arrays, metadata):
        """The fitted forest of a model file's checked arrays and metadata."""
        task = metadata.get("task", "classification")
        if task != cls._TASK:
            raise ValueError(f"the file holds a {task} forest, not a {cls._TASK} one; read it with velmot.load")
        for name in ("nodes", "tree_sizes", "feature_importances"):
            check(name in arrays, f"missing {name}")
        params, n_features = metadata["params"], metadata["n_features_in"]
        names = set(cls._get_param_names())
        params = {**{k: v for k, v in PARAMETERS_OF_OLDER_FILES.items() if k in names}, **params}
        check(set(params) == names, "unexpected estimator parameters")
        forest = cls(**params)
        try:
            forest._validate_params()
        except (ValueError, TypeError) as error:
            raise ValueError(f"damaged velmot forest file: {error}") from None
        targets = cls._task_from_model(arrays)
        trees = split_trees(arrays["nodes"], arrays["tree_sizes"], n_features, cls._leaf_classes(targets))
        check(len(trees) == forest.n_estimators, "the number of trees differs from n_estimators")
        forest.n_features_in_ = n_features
        if "feature_names" in arrays:
            names = arrays["feature_names"]
            check(names.ndim == 1 and len(names) == n_features and names.dtype.kind == "U", "bad feature_names")
            forest.feature_names_in_ = names.astype(object)
        importances = float_vector(arrays["feature_importances"], n_features, "feature_importances")
        nodes = cls._NODES.from_tree_arrays(trees)
        # Files written without node statistics leave them unknown.
        if "node_counts" in arrays or "node_impurities" in arrays:
            total = nodes.offsets[-1]
            counts = arrays.get("node_counts", np.empty(0))
            check(counts.dtype == np.int64 and counts.shape == (total,), f"node_counts must be {total} int64 values")
            check(bool(np.all(counts >= 0)), "a node count is negative")
            impurities = float_vector(arrays.get("node_impurities", np.empty(0)), total, "node_impurities")
            nodes = cls._NODES(**{**nodes.as_dict(), "count": counts, "impurity": impurities})
        fill = arrays.get("missing_value_fill")
        forest._set_fitted(
            targets, nodes, None, None if fill is None else float_vector(fill, n_features, "missing_value_fill")
        )
        forest.feature_importances_ = importances
        return forest


class RandomForestClassifier(ClassifierMixin, ForestEstimator):
    """A random forest classifier: bootstrapped, fully grown binary trees.

    Each tree is learnt from its own bootstrap sample; at every node a random
    subset of the features is searched for the best threshold under the
    chosen criterion, and the forest predicts by majority vote (ties go to the
    first class in ``classes_``). Trees are learnt on OpenMP threads in C++.

    Bootstrapping is always on. Trees grow until a leaf is pure or a limit
    (``min_samples_split``, ``min_samples_leaf``, ``min_impurity_decrease``,
    ``max_depth``) stops them; the limits count in-bag samples, bootstrap
    copies counted.

    Sample weights (``fit``'s ``sample_weight`` times ``class_weight``'s
    factors) act on the bootstrap alone: each of a tree's draws picks a
    sample with probability proportional to its weight, and the trees then
    grow, count and vote exactly as without weights. So weights cost
    nothing in the hot path; equal weights give exactly the unweighted
    forest; a sample of weight 0 is never drawn, so it reaches no split, no
    leaf and no imputed median; and a sample of integer weight k is drawn as
    often as k copies of it would be, in expectation (the number of draws
    stays ``max_samples`` of the rows given, whatever the weights). A
    sample's weight does not scale its impurity or its vote once drawn.

    Missing values (NaN) are allowed in X: during ``fit`` the
    library replaces them by each feature's median (the upper of the two
    middle values for an even count), and prediction replaces them by the
    same training medians, so a prediction never depends on the other rows
    passed with it. Infinite values are rejected.

    Parameters
    ----------
    n_estimators : int, default=100
        Number of trees.
    criterion : {"gini", "entropy", "log_loss", "gain_ratio"}, default="gini"
        Split quality: Gini impurity decrease, information gain ("entropy"
        and its alias "log_loss") or information gain ratio.
    max_features : {"sqrt", "log2"}, int, float or None, default="sqrt"
        Number of features searched at each node: ``sqrt(n_features)``,
        ``log2(n_features)``, a count, a fraction of ``n_features``, or all
        features (None). Features that are constant within a node are skipped
        and do not count.
    max_depth : int or None, default=None
        Depth limit of each tree (the root is at depth 0); None for none.
    max_samples : int, float or None, default=None
        Size of each bootstrap sample: a count, a fraction of the training
        set, or None for as many draws as there are training samples.
    n_jobs : int or None, default=None
        Number of threads for fit and predict. None means 1, -1 all cores,
        -2 all but one and so on; at most 32. It does not change the forest.
    random_state : int, RandomState instance or None, default=None
        The forest depends on the seed and the data only: tree k is grown
        from a generator made from (seed, k). An int (0 included) is the seed
        itself, so every fit on the same data gives the same forest, whatever
        ``n_jobs``; a RandomState instance is drawn from once per fit, so
        successive fits differ; None seeds from fresh entropy.
    verbose : int, default=0
        Above 0, a progress bar is shown while trees are learnt. It does not
        change the forest.
    min_samples_split : int or float, default=2
        A node with fewer in-bag samples becomes a leaf; a float is a
        fraction of the training samples, rounded up.
    min_samples_leaf : int, float or "pairs", default=1
        The fewest in-bag samples a leaf may hold (a float: a fraction of the
        training samples, rounded up): nodes are split only at thresholds
        that leave at least this many on each side. "pairs" is the library's
        own rule, as the module grows trees: the best threshold is searched
        among all, and the node keeps it only if both sides receive two
        samples or more, else it becomes a leaf. The default is 1, as in
        scikit-learn, because it was the more accurate on held-out data
        (bench/leaf_rule.py, 3 seeds each: +0.27 accuracy points on 100,000
        x 40 synthetic data, +0.30 on the digits) for about 60% more nodes
        per tree.
    min_impurity_decrease : float, default=0.0
        A split is kept only if N_t / N x (impurity - N_t_L / N_t x
        left_impurity - N_t_R / N_t x right_impurity) reaches this value,
        with N the tree's in-bag samples, N_t the node's, and impurities
        measured as Gini impurity whatever the criterion.
    oob_score : bool or callable, default=False
        Estimate the generalisation score from the out-of-bag samples: each
        training sample is predicted by the trees whose bootstrap sample
        missed it. True scores with accuracy; a callable
        ``score(y_true, y_pred)`` is called with the labels. The votes are
        counted inside the learning call, as each tree is grown.
    class_weight : {"balanced", "balanced_subsample"}, dict or None, default=None
        Factors that multiply the sample weights by class: "balanced" gives
        class c the factor n_samples / (n_classes x count(c)), a dict
        ``{label: factor}`` the factors it names (1 for other classes).
        "balanced_subsample" is "balanced": weights already act through
        each tree's bootstrap draws, so every tree's sample is balanced in
        expectation.

    Attributes
    ----------
    classes_ : ndarray of shape (n_classes,)
        The class labels, sorted.
    n_classes_ : int
        Number of classes.
    n_features_in_ : int
        Number of features seen during fit.
    feature_names_in_ : ndarray of shape (n_features_in_,)
        Column names, when X was a DataFrame with string column names.
    feature_importances_ : ndarray of shape (n_features_in_,)
        Mean over the trees of each tree's normalised impurity decreases,
        summed in tree order. Trees without any informative split carry no
        importances and are left out of the mean. All zeros if no tree split
        at all.
    trees_ : list of ndarray of shape (5, n_nodes)
        The trees as float64 arrays, one column per node in breadth-first
        order; rows: left child, right child (-1 for none), feature index,
        threshold, label (an index into ``classes_``). A sample goes left when
        its feature value is below the threshold. Made from ``nodes_`` at
        each read (keep the list rather than reading it tree by tree).
    oob_score_ : float
        The out-of-bag score (with ``oob_score``), over the samples that
        were out of bag for at least one tree.
    oob_decision_function_ : ndarray of shape (n_samples, n_classes)
        With ``oob_score``: per training sample, the fraction of its
        out-of-bag trees voting for each class; NaN (with a warning) for a
        sample in bag for every tree.
    nodes_ : ForestNodes
        The same trees as one structure of arrays (``offsets``, ``left``,
        ``right``, ``feature``, ``threshold``, ``value``), with each node's
        in-bag sample ``count`` (bootstrap copies counted) and its label
        ``impurity`` under the fit's criterion: Gini impurity for "gini",
        entropy in bits for the others. Prediction reads these arrays.

    Examples
    --------
    >>> from sklearn.datasets import load_iris
    >>> from velmot import RandomForestClassifier
    >>> X, y = load_iris(return_X_y=True)
    >>> forest = RandomForestClassifier(n_estimators=50, random_state=0).fit(X, y)
    >>> forest.predict(X[:3])
    array([0, 0, 0])
    >>> forest.predict_proba(X[:1]).shape
    (1, 3)
    """

    _parameter_constraints = {
        **FOREST_PARAMETER_CONSTRAINTS,
        "criterion": [StrOptions(set(CRITERION_NAMES) - {"squared_error"})],
        "class_weight": [StrOptions({"balanced", "balanced_subsample"}), dict, None],
    }
    _TASK = "classification"
    _NODES = ForestNodes

    def __init__(
        self,
        n_estimators=100,
        *,
        criterion="gini",
        max_features="sqrt",
        max_depth=None,
        max_samples=None,
        n_jobs=None,
        random_state=None,
        verbose=0,
        min_samples_split=2,
        min_samples_leaf=1,
        min_impurity_decrease=0.0,
        oob_score=False,
        class_weight=None,
    ):
        self.n_estimators = n_estimators
        self.criterion = criterion
        self.max_features = max_features
        self.max_depth = max_depth
        self.max_samples = max_samples
        self.n_jobs = n_jobs
        self.random_state = random_state
        self.verbose = verbose
        self.min_samples_split = min_samples_split
        self.min_samples_leaf = min_samples_leaf
        self.min_impurity_decrease = min_impurity_decrease
        self.oob_score = oob_score
        self.class_weight = class_weight

    def _check_targets(self, y):
        check_classification_targets(y)

    def _encode_targets(self, y):
        classes, codes = np.unique(y, return_inverse=True)
        return classes, np.ascontiguousarray(codes, dtype=np.int32), len(classes)

    def _sample_weights(self, sample_weight, X, classes, codes):
        return sample_weights(sample_weight, self.class_weight, X, classes, codes)

    def _set_task_fitted(self, classes):
        self.classes_ = classes
        self.n_classes_ = len(classes)

    def _set_out_of_bag(self, out_of_bag, codes):
        for name in ("oob_score_", "oob_decision_function_"):
            self.__dict__.pop(name, None)
        if out_of_bag is not None:
            self.oob_decision_function_, self.oob_score_ = out_of_bag_estimates(
                out_of_bag["oob_votes"], codes, self.classes_, self.oob_score
            )

    def predict(self, X):
        """Predict the class of each sample by majority vote of the trees.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.

        Returns
        -------
        y : ndarray of shape (n_samples,)
            Predicted labels, taken from ``classes_``.
        """
        # Ties between classes go to the first class.
        codes = self._predict_codes_or_proba(X, proba=False)
        return self.classes_[codes]

    def predict_proba(self, X):
        """Class probabilities: the fraction of trees voting for each class.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.

        Returns
        -------
        proba : ndarray of shape (n_samples, n_classes)
            Columns in the order of ``classes_``; each row sums to 1.
        """
        return self._predict_codes_or_proba(X, proba=True)

    def predict_log_proba(self, X):
        """Natural logarithm of ``predict_proba``; -inf for classes no tree chose.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.

        Returns
        -------
        log_proba : ndarray of shape (n_samples, n_classes)
            Columns in the order of ``classes_``.
        """
        proba = self.predict_proba(X)
        with np.errstate(divide="ignore"):
            return np.log(proba)

    def _predict_codes_or_proba(self, X, *, proba):
        _, samples, n_classes, n_threads = self._walk_arguments(X)
        return _core.predict(self.nodes_.prepared(n_classes, n_threads), samples, n_classes, n_threads, proba)

    # -- model files -----------------------------------------------------

    @classmethod
    def _model_entries(cls):
        return ("classes", *super()._model_entries())

    def _task_arrays(self):
        return {"classes": _without_objects(self.classes_, "class labels")}

    @staticmethod
    def _task_from_model(arrays):
        return checked_classes(arrays)

    @staticmethod
    def _leaf_classes(classes):
        return len(classes)


def weighed_medians(X, weights):
    """(X, medians that fill its NaN) over the samples of positive weight:
    a sample of weight 0 must not reach the forest even through the value
    that replaces another sample's NaN, so X then comes back with its NaN
    filled."""
    if weights is None or np.all(weights > 0):
        return X, upper_medians(X)
    medians = upper_medians(X[weights > 0])
    return fill_missing(X, medians), medians


def _json_params(params):
    """Parameters as JSON values; a RandomState instance cannot be stored and
    is written as None, a callable (an ``oob_score`` scorer) as True."""
    converted = {}
    for key, value in params.items():
        if isinstance(value, (bool, np.bool_)):
            converted[key] = bool(value)
        elif isinstance(value, Integral):
            converted[key] = int(value)
        elif isinstance(value, Real):
            converted[key] = float(value)
        elif value is None or isinstance(value, str):
            converted[key] = value
        elif callable(value):
            converted[key] = True
        else:
            converted[key] = None
    return converted


def _without_objects(values, what):
    """values as an array numpy can store without pickle."""
    if values.dtype.kind != "O":
        return values
    plain = np.array(values.tolist())
    if plain.dtype.kind not in "biufU" or plain.shape != values.shape or not np.array_equal(plain, values):
        raise ValueError(f"{what} of mixed or object types cannot be saved without pickle")
    return plain
