"""The scikit-learn estimator over the compiled module."""

import math
import os
from numbers import Integral

import numpy as np
import PyVelmot_wrap
from sklearn.base import BaseEstimator, ClassifierMixin
from sklearn.utils._param_validation import Interval, RealNotInt, StrOptions
from sklearn.utils.multiclass import check_classification_targets
from sklearn.utils.validation import check_is_fitted, validate_data

from ._features import (
    MODULE_LETTERS,
    as_module_dtype,
    feature_major,
    feature_major_with_constant_row,
    fill_missing,
    upper_medians,
)
from ._fork import threads_for_call
from ._learning import CRITERION_SUFFIXES, POOL_SIZE, learn_forest

# The module reads labels through a signed 32-bit byte offset.
MAX_SAMPLES = (2**31 - 1) // np.dtype(np.int32).itemsize
_MAX_INT32 = 2**31 - 1


class RandomForestClassifier(ClassifierMixin, BaseEstimator):
    """A random forest classifier: bootstrapped, fully grown binary trees.

    Each tree is learnt from its own bootstrap sample; at every node a random
    subset of the features is searched for the best threshold under the
    chosen criterion, and the forest predicts by majority vote (ties go to the
    first class in ``classes_``). Trees are learnt on OpenMP threads in C++.

    Some choices are fixed by the library: bootstrapping is always on; trees
    grow until a leaf is pure or holds a single instance, except that a split
    is kept only when each side receives at least two instances; there are no
    sample or class weights and no out-of-bag estimate. Missing values (NaN) are allowed in X: during ``fit`` the
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
        -2 all but one and so on; at most 32, the size of the library's pool
        of random generators.
    random_state : int, RandomState instance or None, default=None
        An int (0 included) gives the same forest on every fit with the same
        ``n_jobs`` and data; a RandomState instance is drawn from, so
        successive fits differ; None seeds from fresh entropy. The forest
        depends on the number of threads.
    verbose : int, default=0
        Above 0, a progress bar is shown while trees are learnt. It does not
        change the forest.

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
        Mean over the trees of each tree's normalised impurity decreases.
        Trees without any informative split carry no importances; the
        library averages trees in batches, and a batch holding such a tree is
        left out of the mean. All zeros if no tree split at all.
    trees_ : list of ndarray of shape (5, n_nodes)
        The trees as float64 arrays, one column per node in breadth-first
        order; rows: left child, right child (-1 for none), feature index,
        threshold, label (an index into ``classes_``). A sample goes left when
        its feature value is below the threshold.

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
        "n_estimators": [Interval(Integral, 1, None, closed="left")],
        "criterion": [StrOptions(set(CRITERION_SUFFIXES))],
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
    }

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
    ):
        self.n_estimators = n_estimators
        self.criterion = criterion
        self.max_features = max_features
        self.max_depth = max_depth
        self.max_samples = max_samples
        self.n_jobs = n_jobs
        self.random_state = random_state
        self.verbose = verbose

    def fit(self, X, y):
        """Learn the forest from the training set (X, y).

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Training samples. int32, float64, float32 and uint8 matrices are
            used in place, without a copy; bool is viewed as uint8; other
            integer types become int32 (float64 if a value does not fit),
            float16 becomes float32 and other numbers float64. Asking for
            every feature at each node (``max_features`` reaching
            ``n_features``) costs one feature-major copy of X.
        y : array-like of shape (n_samples,)
            Class labels of any type: numbers, strings, bools.

        Returns
        -------
        self : RandomForestClassifier
            The fitted estimator.
        """
        self._validate_params()
        X, y = validate_data(self, X, y, dtype="numeric", ensure_all_finite="allow-nan")
        check_classification_targets(y)
        n_samples, n_features = X.shape
        if n_samples > MAX_SAMPLES:
            raise ValueError(f"X has {n_samples} samples; the library accepts at most {MAX_SAMPLES}.")
        # Checks that need the data's shape come before anything is copied.
        features_per_split = self._features_per_split(n_features)
        bootstrap_size = self._bootstrap_size(n_samples)
        classes, codes = np.unique(y, return_inverse=True)
        X = as_module_dtype(X)
        if features_per_split < n_features:
            features = feature_major(X)
        else:
            features = feature_major_with_constant_row(X)
            features_per_split = n_features

        trees, importances = learn_forest(
            features,
            np.ascontiguousarray(codes, dtype=np.int32),
            n_classes=len(classes),
            n_trees=self.n_estimators,
            sampling_prop=_sampling_proportion(bootstrap_size, n_samples),
            fte_per_split=features_per_split,
            max_depth=0 if self.max_depth is None else min(self.max_depth, _MAX_INT32),
            n_threads=_thread_count(self.n_jobs),
            criterion=self.criterion,
            random_state=self.random_state,
            verbose=self.verbose,
        )
        self.classes_ = classes
        self.n_classes_ = len(classes)
        self.trees_ = trees
        self.feature_importances_ = np.zeros(n_features) if importances is None else np.array(importances[:n_features])
        self._missing_value_fill_ = upper_medians(X)
        return self

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
        features = self._prediction_features(X)
        codes = np.empty(features.shape[1], dtype=np.int32)
        predict = getattr(PyVelmot_wrap, f"test_{MODULE_LETTERS[features.dtype]}i")
        n_threads = threads_for_call(_thread_count(self.n_jobs))
        predict(features, self._module_forest(), self.n_classes_, codes, n_threads)
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
        features = self._prediction_features(X)
        proba = np.empty((features.shape[1], self.n_classes_), dtype=np.float64)
        vote_fractions = getattr(PyVelmot_wrap, f"prob_{MODULE_LETTERS[features.dtype]}d")
        n_threads = threads_for_call(_thread_count(self.n_jobs))
        vote_fractions(features, self._module_forest(), self.n_classes_, proba, n_threads)
        return proba

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

    def save(self, path):
        """Write the fitted forest to a portable ``.npz`` file, without pickle.

        Parameters
        ----------
        path : str, path-like or binary file object
            Destination; written exactly there, no suffix is added.

        Notes
        -----
        Class labels and feature names are stored as plain numpy arrays
        (object arrays of strings come back as numpy string arrays). A
        RandomState instance given as ``random_state`` cannot be stored and is
        saved as None; the trees themselves are saved exactly.

        Examples
        --------
        >>> import velmot
        >>> forest.save("forest.npz")  # doctest: +SKIP
        >>> velmot.load("forest.npz").predict(X)  # doctest: +SKIP
        """
        from ._persistence import save_forest

        save_forest(self, path)

    def __sklearn_tags__(self):
        tags = super().__sklearn_tags__()
        tags.input_tags.allow_nan = True
        return tags

    def _prediction_features(self, X):
        check_is_fitted(self)
        X = validate_data(self, X, reset=False, dtype="numeric", ensure_all_finite="allow-nan")
        return feature_major(fill_missing(as_module_dtype(X), self._missing_value_fill_))

    def _module_forest(self):
        # The module silently skips array subclasses (a memory-mapped forest
        # after joblib.load, for instance): hand it base-class views.
        return [np.asarray(tree) for tree in self.trees_]

    def _features_per_split(self, n_features):
        if self.max_features is None:
            return n_features
        if self.max_features == "sqrt":
            return max(1, int(math.sqrt(n_features)))
        if self.max_features == "log2":
            return max(1, int(math.log2(n_features)))
        if isinstance(self.max_features, Integral):
            if self.max_features > n_features:
                raise ValueError(
                    f"max_features={self.max_features} is more than the {n_features} features of X; "
                    "pass at most n_features, or None for all."
                )
            return int(self.max_features)
        return max(1, int(self.max_features * n_features))

    def _bootstrap_size(self, n_samples):
        if self.max_samples is None:
            return n_samples
        if isinstance(self.max_samples, Integral):
            if self.max_samples > n_samples:
                raise ValueError(
                    f"max_samples={self.max_samples} is more than the {n_samples} samples of X; "
                    "pass at most n_samples, or a fraction."
                )
            return int(self.max_samples)
        return max(1, round(self.max_samples * n_samples))


def _sampling_proportion(count, n_samples):
    """The proportion whose product with n_samples truncates to exactly count.

    The library draws int(proportion * n_samples) instances; count / n_samples
    can fall a hair short of count after the multiplication.
    """
    proportion = count / n_samples
    while int(proportion * n_samples) < count:
        proportion = float(np.nextafter(proportion, math.inf))
    return proportion


def _thread_count(n_jobs):
    if n_jobs is None:
        return 1
    if n_jobs > 0:
        return int(n_jobs)
    cores = len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1
    return max(1, min(POOL_SIZE, cores + 1 + int(n_jobs)))
