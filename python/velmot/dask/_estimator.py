"""velmot.dask.RandomForestClassifier and RandomForestRegressor: the local
estimators' forests, learnt as tasks on a Dask ``distributed`` cluster (see
the package docstring)."""

import uuid
from concurrent.futures import CancelledError
from numbers import Integral

import dask
import dask.array as da
import numpy as np
from distributed import Client, default_client
from sklearn.base import clone
from sklearn.utils._param_validation import Interval
from sklearn.utils.validation import (
    _check_feature_names,
    _check_n_features,
    check_is_fitted,
)
from tqdm import tqdm

from .._forest import RandomForestClassifier as LocalRandomForestClassifier
from .._learning import forest_seed, mean_importances
from .._regressor import RandomForestRegressor as LocalRandomForestRegressor
from .._settings import MAX_SAMPLES, resolve_settings
from .._weights import class_weight_factors
from ._cluster import cancelled_on_failure, computed, finished, lost
from ._partitions import aligned_partitions, combined_medians, delayed_partitions, is_dask_dataframe
from ._tasks import learn_block, learn_partition, predict_block, summarize_partition

__all__ = ["RandomForestClassifier", "RandomForestRegressor"]

# Times the training set is scattered before a fit gives up, when workers
# holding its last copy keep being lost.
_SCATTER_ATTEMPTS = 3

# Attributes that make up a fitted forest, copied to the local estimator.
_FITTED_ATTRIBUTES = (
    "classes_",
    "n_classes_",
    "n_features_in_",
    "feature_names_in_",
    "nodes_",
    "feature_importances_",
    "oob_score_",
    "oob_decision_function_",
    "oob_prediction_",
    "_missing_value_fill_",
)


_DASK_PARAMETER_CONSTRAINTS = {
    "partition_wise": ["boolean"],
    "trees_per_block": [Interval(Integral, 1, None, closed="left"), None],
    "client": [Client, None],
}


class _DaskForest:
    """Learning on the cluster, lazy prediction and model files, for a local
    estimator class ``_LOCAL`` that a public class also derives from."""

    def fit(self, X, y, sample_weight=None):
        """Learn the forest on the cluster from the training set (X, y).

        Parameters
        ----------
        X : array-like, Dask array or Dask DataFrame of shape (n_samples, n_features)
            Training samples, converted as by the local estimator.
            Scattered, a Dask collection is first computed on the client.
            Partition-wise, X must be a Dask collection; a Dask array split
            into several column blocks is joined into row blocks.
        y : array-like, Dask array or Dask Series of shape (n_samples,)
            Class labels or targets. Partition-wise, a Dask collection with
            X's partitions (a numpy vector is split like a Dask array X).
        sample_weight : array-like of shape (n_samples,) or None, default=None
            Sample weights, as in the local estimator; only
            when scattering (partition-wise, ``class_weight`` applies but
            sample weights are refused).

        Returns
        -------
        self : estimator
            The fitted estimator.
        """
        self._validate_params()
        client = self._cluster_client()
        if self.partition_wise:
            if sample_weight is not None:
                raise ValueError(
                    "sample_weight is not supported with partition_wise=True (each partition is learnt where it "
                    "lies); scatter the data (partition_wise=False) or use class_weight."
                )
            self._fit_partition_wise(client, X, y)
        else:
            self._fit_scattered(client, X, y, sample_weight)
        return self

    def predict(self, X):
        """Predict each sample's class or target, as the local estimator does.

        Parameters
        ----------
        X : array-like, Dask array or Dask DataFrame of shape (n_samples, n_features)
            Samples. A Dask collection is predicted lazily, block by block.

        Returns
        -------
        y : ndarray or Dask array of shape (n_samples,)
            Predictions; a Dask array for a Dask X (with unknown block
            lengths for a DataFrame).
        """
        if dask.is_dask_collection(X):
            return self._predict_lazily(X, "predict")
        return super().predict(X)

    def to_local(self):
        """The fitted forest as an ordinary velmot estimator.

        Returns
        -------
        forest : velmot.RandomForestClassifier or velmot.RandomForestRegressor
            Same parameters (less the cluster's), trees and attributes; it
            predicts exactly as this estimator does, without a cluster.

        Examples
        --------
        >>> local = forest.to_local()  # doctest: +SKIP
        >>> local.predict(X[:3])  # doctest: +SKIP
        array([0, 0, 0])
        """
        check_is_fitted(self)
        local = self._LOCAL(**{name: getattr(self, name) for name in self._LOCAL._get_param_names()})
        for name in _FITTED_ATTRIBUTES:
            if hasattr(self, name):
                setattr(local, name, getattr(self, name))
        return local

    def save(self, path):
        """Write the fitted forest to a portable ``.npz`` file, without pickle.

        ``velmot.load`` reads it back as an ordinary velmot estimator.

        Parameters
        ----------
        path : str, path-like or binary file object
            Destination; written exactly there, no suffix is added.

        Examples
        --------
        >>> import velmot
        >>> forest.save("forest.npz")  # doctest: +SKIP
        >>> velmot.load("forest.npz").predict(X)  # doctest: +SKIP
        """
        self.to_local().save(path)

    def __sklearn_clone__(self):
        # A Client cannot be deep-copied; the clone shares it.
        params = {
            name: value if name == "client" else clone(value, safe=False)
            for name, value in self.get_params(deep=False).items()
        }
        return type(self)(**params)

    def __getstate__(self):
        # A Client cannot be pickled; an unpickled estimator uses the default one.
        return dict(super().__getstate__(), client=None)

    # -- learning ---------------------------------------------------------

    def _cluster_client(self):
        if self.client is not None:
            client = self.client
        else:
            try:
                client = default_client()
            except ValueError as error:
                raise ValueError(
                    f"velmot.dask.{type(self).__name__} learns on a Dask cluster, but no distributed Client "
                    "was found: create one first (distributed.Client(...)) or pass client=..."
                ) from error
        if client.asynchronous:
            raise ValueError(
                "fit blocks until the forest is learnt; pass a synchronous Client, not an asynchronous one"
            )
        return client

    def _blocks(self):
        """[first, last) tree indices of each scattered task."""
        per_block = self.trees_per_block or -(-self.n_estimators // 10)
        return [(start, min(start + per_block, self.n_estimators)) for start in range(0, self.n_estimators, per_block)]

    def _fit_scattered(self, client, X, y, sample_weight):
        X, y, sample_weight = computed(client, X, y, sample_weight)
        features, targets, labels, n_classes, weights, medians, settings = self._training_inputs(X, y, sample_weight)

        ranges = self._blocks()
        seed = forest_seed(self.random_state)
        fit_id = uuid.uuid4().hex
        blocks = [None] * len(ranges)
        with self._progress_bar() as progress:
            for attempt in range(1, _SCATTER_ATTEMPTS + 1):
                pending = [index for index, block in enumerate(blocks) if block is None]
                # A copy on every worker. Dask drops the copies no waiting
                # task needs, though, and scattered data cannot be recomputed:
                # if the last copy goes down with its worker, the unfinished
                # blocks are cancelled and learnt again from a new scatter.
                data = client.scatter(
                    [features, labels] + ([] if weights is None else [weights]), broadcast=True, hash=False
                )
                futures = []
                try:
                    with cancelled_on_failure(client, futures):
                        for index in pending:
                            futures.append(
                                client.submit(
                                    learn_block,
                                    *data,
                                    n_classes=n_classes,
                                    first_tree=ranges[index][0],
                                    last_tree=ranges[index][1],
                                    seed=seed,
                                    key=f"velmot-learn-block-{fit_id}-{index}-{attempt}",
                                    settings=settings,
                                )
                            )
                        for position, block in finished(futures):
                            blocks[pending[position]] = block
                            first, last = ranges[pending[position]]
                            progress.update(last - first)
                    break
                except CancelledError:
                    if attempt == _SCATTER_ATTEMPTS or not lost(client, data):
                        raise
                finally:
                    client.cancel(data)
        nodes, importances, votes = self._joined(blocks)
        self._set_fitted(targets, nodes, importances, medians)
        self._set_out_of_bag(votes, labels)

    def _fit_partition_wise(self, client, X, y):
        X, y, n_features = aligned_partitions(X, y)
        if n_features < 1:
            raise ValueError("X has no features; pass at least one column.")
        _check_feature_names(self, X._meta if hasattr(X, "columns") else np.empty((0, n_features)), reset=True)
        self.n_features_in_ = n_features
        X, y = client.persist([X, y])
        X_parts, y_parts = delayed_partitions(X), delayed_partitions(y)
        fit_id = uuid.uuid4().hex

        futures = []
        with cancelled_on_failure(client, futures):
            futures.extend(
                client.compute(
                    [
                        dask.delayed(summarize_partition)(
                            X_part,
                            y_part,
                            self._TASK == "classification",
                            dask_key_name=f"velmot-summarize-{fit_id}-{i}",
                        )
                        for i, (X_part, y_part) in enumerate(zip(X_parts, y_parts))
                    ]
                )
            )
            summaries = [summary for _, summary in sorted(finished(futures), key=lambda finished: finished[0])]
        used = [i for i, summary in enumerate(summaries) if summary["n_samples"] > 0]
        if not used:
            raise ValueError("X has no samples; every partition is empty.")
        # The classes over all partitions; regression targets are checked
        # where they lie.
        classes = class_factors = None
        if self._TASK == "classification":
            classes = np.unique(np.concatenate([summaries[i]["classes"] for i in used]))
            self._check_targets(classes)
        if getattr(self, "class_weight", None) is not None:
            counts = np.zeros(len(classes), dtype=np.int64)
            for i in used:
                counts[np.searchsorted(classes, summaries[i]["classes"])] += summaries[i]["class_counts"]
            class_factors = class_weight_factors(self.class_weight, classes, counts)
        if self.n_estimators < len(used):
            raise ValueError(
                f"n_estimators={self.n_estimators} is less than the {len(used)} non-empty partitions of X, "
                "and each partition learns at least one tree: raise n_estimators or repartition X into fewer, "
                "larger partitions."
            )
        sizes = [self.n_estimators // len(used) + (rank < self.n_estimators % len(used)) for rank in range(len(used))]
        seed = forest_seed(self.random_state)
        firsts = np.cumsum([0] + sizes[:-1])
        tasks = []
        for rank, (i, size, first) in enumerate(zip(used, sizes, firsts)):
            settings = resolve_settings(self, self._checked_partition_size(summaries[i], i), n_features)
            tasks.append(
                dask.delayed(learn_partition)(
                    X_parts[i],
                    y_parts[i],
                    classes,
                    first_tree=int(first),
                    last_tree=int(first + size),
                    seed=seed,
                    settings=settings,
                    class_factors=class_factors,
                    dask_key_name=f"velmot-learn-partition-{fit_id}-{rank}",
                )
            )
        blocks = [None] * len(tasks)
        futures = []
        with cancelled_on_failure(client, futures), self._progress_bar() as progress:
            futures.extend(client.compute(tasks))
            for position, block in finished(futures):
                blocks[position] = block
                progress.update(sizes[position])
        medians = combined_medians([summaries[i] for i in used], n_features)
        nodes, importances, votes = self._joined(blocks, stacked=True)
        self._set_fitted(classes, nodes, importances, medians)
        self._set_out_of_bag(votes, None if votes is None else np.concatenate([block[3] for block in blocks]))

    def _checked_partition_size(self, summary, index):
        n_samples = summary["n_samples"]
        if n_samples > MAX_SAMPLES:
            raise ValueError(
                f"partition {index} of X has {n_samples} samples; the library accepts at most {MAX_SAMPLES}."
            )
        if isinstance(self.max_samples, Integral) and self.max_samples > n_samples:
            raise ValueError(
                f"max_samples={self.max_samples} is more than the {n_samples} samples of partition {index} of X; "
                "partition-wise, each tree samples from one partition: pass at most its size, or a fraction."
            )
        return n_samples

    def _progress_bar(self):
        return tqdm(total=self.n_estimators, unit="tree", desc="Learning trees", disable=self.verbose <= 0)

    # -- prediction -------------------------------------------------------

    def _predict_lazily(self, X, method):
        check_is_fitted(self)
        if isinstance(X, da.Array):
            if X.ndim != 2:
                raise ValueError(f"X must be 2-D, (n_samples, n_features); got a Dask array of shape {X.shape}.")
            _check_n_features(self, np.empty((0, X.shape[1])), reset=False)
            _check_feature_names(self, np.empty((0, X.shape[1])), reset=False)
            if X.numblocks[1] > 1:
                X = X.rechunk({1: -1})
        elif is_dask_dataframe(X):
            _check_n_features(self, X._meta, reset=False)
            _check_feature_names(self, X._meta, reset=False)
        else:
            raise TypeError(f"X must be a numpy-like matrix, a Dask array or a Dask DataFrame, not {type(X).__name__}.")

        # The forest is one node of the graph, read by every block's task.
        # Embedded rather than scattered: Dask keeps a single copy of
        # scattered data, which a lost worker would take with it, while an
        # embedded forest is simply sent again, on any scheduler.
        forest = dask.delayed(self.to_local(), pure=False)
        if method == "predict":
            meta = np.empty((0,), dtype=self.classes_.dtype if hasattr(self, "classes_") else np.float64)
        else:
            meta = np.empty((0, self.n_classes_), dtype=np.float64)
        if isinstance(X, da.Array):
            if method == "predict":
                return X.map_blocks(predict_block, forest, method, drop_axis=1, meta=meta)
            return X.map_blocks(predict_block, forest, method, chunks=(X.chunks[0], (self.n_classes_,)), meta=meta)
        return X.map_partitions(predict_block, forest, method, meta=meta)

    def _joined(self, blocks, stacked=False):
        """(nodes, mean importances, out-of-bag estimates or None) of blocks
        of (nodes, importance rows, out-of-bag estimates, ...) in tree order.
        Scattered blocks estimate the same samples, so their estimates are
        summed in block order (integer votes and counts exactly; sums of
        regression predictions up to rounding); partition-wise (stacked)
        each block estimates its own partition's rows, which follow one
        another."""
        importances = mean_importances(np.concatenate([block[1] for block in blocks]))
        out_of_bag = None
        if blocks[0][2] is not None:
            parts = [block[2] for block in blocks]
            join = np.concatenate if stacked else lambda arrays: np.sum(arrays, axis=0)
            out_of_bag = {name: join([part[name] for part in parts]) for name in parts[0]}
        return self._NODES.join([block[0] for block in blocks]), importances, out_of_bag


class RandomForestClassifier(_DaskForest, LocalRandomForestClassifier):
    """A velmot random forest learnt as tasks on a Dask ``distributed`` cluster.

    The forest, its parameters, attributes and predictions are those of
    ``velmot.RandomForestClassifier``; only the learning is spread over the
    cluster's workers, one task per block of trees.

    By default the training set is gathered on the client, validated and
    encoded there, scattered once to every worker, and each task learns one
    block of trees from all of it; the data must therefore fit in the
    client's and in each worker's memory. Tree k of the forest is grown from
    (seed, k) alone, so with an int ``random_state`` the forest is identical
    to ``velmot.RandomForestClassifier``'s with the same ``random_state``, on
    any number of workers, for any ``n_jobs`` and ``trees_per_block``.

    With ``partition_wise=True`` and a Dask array or DataFrame, each task
    learns its share of the trees from one partition (a block of rows),
    on the worker that holds it, and no worker ever holds the whole data set.
    Each sub-forest then sees only its own partition: its bootstrap samples
    are drawn from that partition alone, so partitions should be large and
    their rows shuffled. The trees are divided among the non-empty partitions
    as evenly as possible, the earlier partitions taking one more, and
    ``trees_`` lists them partition after partition; tree k is still grown
    from (seed, k). Labels are still
    encoded over the whole data set, so a class absent from a partition is a
    class of the forest. Missing values are imputed by each partition's own
    median while learning; prediction fills them with the median of the
    partitions' medians, weighted by their counts of present values (the
    exact median would need a whole column on one worker).

    Prediction on a Dask array or DataFrame is lazy, one task per block of
    rows, with the forest carried once in the task graph. On numpy or pandas
    input, prediction runs here, exactly as the local estimator's.

    Parameters
    ----------
    n_estimators : int, default=100
        Number of trees.
    criterion : {"gini", "entropy", "log_loss", "gain_ratio"}, default="gini"
        Split quality, as in ``velmot.RandomForestClassifier``.
    max_features : {"sqrt", "log2"}, int, float or None, default="sqrt"
        Number of features searched at each node.
    max_depth : int or None, default=None
        Depth limit of each tree; None for none.
    max_samples : int, float or None, default=None
        Size of each bootstrap sample: a count, a fraction of the training
        set (of the partition, when partition-wise), or None for all of it.
    n_jobs : int or None, default=None
        Threads each block of trees is learnt with on its worker, and each
        block of samples predicted with. Resolved on the client (-1 means
        the client's cores); it does not change the forest. Give the
        workers as many threads per task, or leave it at 1 and run more
        worker threads.
    random_state : int, RandomState instance or None, default=None
        An int gives the same forest on every fit with the same data (and,
        partition-wise, the same partitions), on any cluster.
    verbose : int, default=0
        Above 0, a progress bar counts the trees of finished blocks.
    min_samples_split, min_samples_leaf, min_impurity_decrease : default=2, 1, 0.0
        Growth limits, as in ``velmot.RandomForestClassifier``.
    oob_score : bool or callable, default=False
        Out-of-bag estimates. Scattered, the blocks' votes are summed and
        equal the local estimator's; partition-wise, a sample's out-of-bag
        trees are those of its own partition that missed it.
    class_weight : {"balanced", "balanced_subsample"}, dict or None, default=None
        Class factors of the sample weights, from the class counts of the
        whole training set (of all partitions, partition-wise).
    partition_wise : bool, default=False
        Learn each block from one partition of X where it lies, instead of
        scattering the whole training set.
    trees_per_block : int or None, default=None
        Trees per task when scattering; None makes about ten tasks. It does
        not change the forest. Ignored partition-wise, where a partition is
        a block.
    client : distributed.Client or None, default=None
        The cluster's client; None uses the current default client.

    Attributes
    ----------
    classes_ : ndarray of shape (n_classes,)
        The class labels, sorted, over the whole training set.
    n_classes_ : int
        Number of classes.
    n_features_in_ : int
        Number of features seen during fit.
    feature_names_in_ : ndarray of shape (n_features_in_,)
        Column names, when X was a (Dask) DataFrame with string column names.
    feature_importances_ : ndarray of shape (n_features_in_,)
        Mean over the trees of each tree's normalised impurity decreases,
        as in ``velmot.RandomForestClassifier``.
    oob_score_, oob_decision_function_
        With ``oob_score``, as in ``velmot.RandomForestClassifier``.
    trees_ : list of ndarray of shape (5, n_nodes)
        The trees, block after block, in ``velmot.RandomForestClassifier``'s
        encoding.

    See Also
    --------
    velmot.RandomForestClassifier : The same forest, learnt in one process.

    Examples
    --------
    >>> from distributed import Client, LocalCluster
    >>> from sklearn.datasets import load_iris
    >>> import velmot.dask
    >>> X, y = load_iris(return_X_y=True)
    >>> with LocalCluster(n_workers=2, threads_per_worker=1) as cluster, Client(cluster):  # doctest: +SKIP
    ...     forest = velmot.dask.RandomForestClassifier(n_estimators=50, random_state=0).fit(X, y)
    >>> forest.predict(X[:3])  # doctest: +SKIP
    array([0, 0, 0])
    """

    _LOCAL = LocalRandomForestClassifier
    _parameter_constraints = {**LocalRandomForestClassifier._parameter_constraints, **_DASK_PARAMETER_CONSTRAINTS}

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
        partition_wise=False,
        trees_per_block=None,
        client=None,
    ):
        super().__init__(
            n_estimators,
            criterion=criterion,
            max_features=max_features,
            max_depth=max_depth,
            max_samples=max_samples,
            n_jobs=n_jobs,
            random_state=random_state,
            verbose=verbose,
            min_samples_split=min_samples_split,
            min_samples_leaf=min_samples_leaf,
            min_impurity_decrease=min_impurity_decrease,
            oob_score=oob_score,
            class_weight=class_weight,
        )
        self.partition_wise = partition_wise
        self.trees_per_block = trees_per_block
        self.client = client

    def predict_proba(self, X):
        """Class probabilities: the fraction of trees voting for each class.

        Parameters
        ----------
        X : array-like, Dask array or Dask DataFrame of shape (n_samples, n_features)
            Samples. A Dask collection is predicted lazily, block by block.

        Returns
        -------
        proba : ndarray or Dask array of shape (n_samples, n_classes)
            Columns in the order of ``classes_``.
        """
        if dask.is_dask_collection(X):
            return self._predict_lazily(X, "predict_proba")
        return super().predict_proba(X)

    def predict_log_proba(self, X):
        """Natural logarithm of ``predict_proba``; -inf for classes no tree chose.

        Parameters
        ----------
        X : array-like, Dask array or Dask DataFrame of shape (n_samples, n_features)
            Samples. A Dask collection is predicted lazily, block by block.

        Returns
        -------
        log_proba : ndarray or Dask array of shape (n_samples, n_classes)
            Columns in the order of ``classes_``.
        """
        if dask.is_dask_collection(X):
            return self._predict_lazily(X, "predict_log_proba")
        return super().predict_log_proba(X)


class RandomForestRegressor(_DaskForest, LocalRandomForestRegressor):
    """A velmot regression forest learnt as tasks on a Dask ``distributed`` cluster.

    The forest, its parameters, attributes and predictions are those of
    ``velmot.RandomForestRegressor``, learnt as ``RandomForestClassifier``
    of this module learns its forest: scattered (the same forest as the
    local estimator's under an int ``random_state``, on any cluster) or
    partition-wise. Its parameters are the local regressor's, plus
    ``partition_wise``, ``trees_per_block`` and ``client`` as for the
    classifier. Scattered, ``oob_prediction_`` adds the blocks' sums in
    block order, so it equals the local estimator's up to rounding.

    Examples
    --------
    >>> from sklearn.datasets import load_diabetes
    >>> import velmot.dask
    >>> X, y = load_diabetes(return_X_y=True)
    >>> forest = velmot.dask.RandomForestRegressor(n_estimators=50, random_state=0).fit(X, y)  # doctest: +SKIP
    """

    _LOCAL = LocalRandomForestRegressor
    _parameter_constraints = {**LocalRandomForestRegressor._parameter_constraints, **_DASK_PARAMETER_CONSTRAINTS}

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
        partition_wise=False,
        trees_per_block=None,
        client=None,
    ):
        super().__init__(
            n_estimators,
            criterion=criterion,
            max_features=max_features,
            max_depth=max_depth,
            max_samples=max_samples,
            n_jobs=n_jobs,
            random_state=random_state,
            verbose=verbose,
            min_samples_split=min_samples_split,
            min_samples_leaf=min_samples_leaf,
            min_impurity_decrease=min_impurity_decrease,
            oob_score=oob_score,
        )
        self.partition_wise = partition_wise
        self.trees_per_block = trees_per_block
        self.client = client
