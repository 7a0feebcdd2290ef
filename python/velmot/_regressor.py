"""The scikit-learn regressor: squared-error forests over the package's core."""

import numpy as np
from sklearn.base import RegressorMixin
from sklearn.utils._param_validation import StrOptions

from . import _core
from ._forest import FOREST_PARAMETER_CONSTRAINTS, ForestEstimator
from ._nodes import RegressionNodes
from ._out_of_bag import out_of_bag_predictions
from ._weights import sample_weights

# Real targets beyond this magnitude would overflow the squared-error sums.
MAX_TARGET = 1e100


class RandomForestRegressor(RegressorMixin, ForestEstimator):
    """A random forest regressor: bootstrapped, fully grown squared-error trees.

    Each tree is learnt from its own bootstrap sample; at every node the
    features searched (all of them by default) are swept for the threshold
    that most decreases the total squared error of the targets, every
    boundary between distinct values a candidate. A leaf predicts the mean
    of its in-bag targets (bootstrap copies counted) and the forest the mean
    of its trees' leaves. Trees are learnt on threads in C++.

    The growth rules and limits are the classifier's: bootstrapping is
    always on; a node whose targets are all equal is a leaf, and so is one
    that ``min_samples_split``, ``min_samples_leaf`` or
    ``min_impurity_decrease`` (a decrease in total squared error over the
    training set's size) stops; sample weights weigh the bootstrap draws.
    Out-of-bag predictions are each sample's mean over the trees whose
    bootstrap sample missed it, added in tree order (so the same for every
    ``n_jobs``), and the default out-of-bag score is R^2.
    Missing values (NaN) in X are replaced by each feature's training
    median, at fit and at prediction; infinite values are rejected.

    Parameters
    ----------
    n_estimators : int, default=100
        Number of trees.
    criterion : {"squared_error"}, default="squared_error"
        Split quality: the decrease in total squared error.
    max_features : {"sqrt", "log2"}, int, float or None, default=1.0
        Number of features searched at each node: ``sqrt(n_features)``,
        ``log2(n_features)``, a count, a fraction of ``n_features``, or all
        features (1.0 or None). Features that are constant within a node are
        skipped and do not count.
    max_depth : int or None, default=None
        Depth limit of each tree (the root is at depth 0); None for none.
    max_samples : int, float or None, default=None
        Size of each bootstrap sample: a count, a fraction of the training
        set, or None for as many draws as there are training samples.
    n_jobs : int or None, default=None
        Number of threads for fit and predict. None means 1, -1 all cores,
        -2 all but one and so on; at most 32. It does not change the forest.
    random_state : int, RandomState instance or None, default=None
        The forest depends on the seed and the data only, as for
        ``RandomForestClassifier``.
    verbose : int, default=0
        Above 0, a progress bar is shown while trees are learnt.
    min_samples_split, min_samples_leaf, min_impurity_decrease
        As for ``RandomForestClassifier``.
    oob_score : bool or callable, default=False
        Estimate R^2 (or the callable ``score(y_true, y_pred)``) from the
        out-of-bag samples.

    Attributes
    ----------
    n_features_in_ : int
        Number of features seen during fit.
    feature_names_in_ : ndarray of shape (n_features_in_,)
        Column names, when X was a DataFrame with string column names.
    feature_importances_ : ndarray of shape (n_features_in_,)
        Mean over the trees of each feature's share of the tree's total
        squared-error decrease, trees without a split left out; all zeros if
        no tree split at all.
    trees_ : list of ndarray of shape (5, n_nodes)
        The trees as float64 arrays, rows as for the classifier, except that
        a leaf's last row holds its mean target (-2 at a split); made from
        ``nodes_`` at each read.
    oob_score_ : float
        With ``oob_score``: the out-of-bag score, over the samples out of
        bag for at least one tree.
    oob_prediction_ : ndarray of shape (n_samples,)
        With ``oob_score``: per training sample, the mean prediction of the
        trees whose bootstrap sample missed it; NaN (with a warning) for a
        sample in every bag.
    nodes_ : RegressionNodes
        The same trees as one structure of arrays, with float64 ``value``
        (leaf means), in-bag sample ``count`` and ``impurity``, each node's
        mean squared error. Prediction reads these arrays.

    Examples
    --------
    >>> from sklearn.datasets import load_diabetes
    >>> from velmot import RandomForestRegressor
    >>> X, y = load_diabetes(return_X_y=True)
    >>> forest = RandomForestRegressor(n_estimators=50, random_state=0).fit(X, y)
    >>> forest.predict(X[:2]).shape
    (2,)
    """

    _parameter_constraints = {**FOREST_PARAMETER_CONSTRAINTS, "criterion": [StrOptions({"squared_error"})]}
    _TASK = "regression"
    _NODES = RegressionNodes
    _Y_NUMERIC = True

    def __init__(
        self,
        n_estimators=100,
        *,
        criterion="squared_error",
        max_features=1.0,
        max_depth=None,
        max_samples=None,
        n_jobs=None,
        random_state=None,
        verbose=0,
        min_samples_split=2,
        min_samples_leaf=1,
        min_impurity_decrease=0.0,
        oob_score=False,
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

    def predict(self, X):
        """Predict each sample's target: the mean of the trees' leaf values.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.

        Returns
        -------
        y : ndarray of shape (n_samples,)
            Predicted targets, float64.
        """
        samples, n_threads = self._prepared_samples(X)
        return _core.predict_mean(self.nodes_.prepared(0, n_threads), samples, n_threads)

    def _check_targets(self, y):
        if not np.all(np.abs(y) <= MAX_TARGET):
            raise ValueError(f"y holds values beyond +-{MAX_TARGET:g}; rescale the targets.")

    def _encode_targets(self, y):
        return None, np.ascontiguousarray(y, dtype=np.float64), 0

    def _sample_weights(self, sample_weight, X, targets, labels):
        return sample_weights(sample_weight, None, X, None, labels)

    def _set_task_fitted(self, targets):
        pass

    def _set_out_of_bag(self, out_of_bag, targets):
        for name in ("oob_score_", "oob_prediction_"):
            self.__dict__.pop(name, None)
        if out_of_bag is not None:
            self.oob_prediction_, self.oob_score_ = out_of_bag_predictions(
                out_of_bag["oob_counts"], out_of_bag["oob_sums"], targets, self.oob_score
            )

    # -- model files -----------------------------------------------------

    def _task_arrays(self):
        return {}

    @staticmethod
    def _task_from_model(arrays):
        return None

    @staticmethod
    def _leaf_classes(targets):
        return None
