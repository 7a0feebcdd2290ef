"""Learning and predicting with velmot forests on a Dask cluster.

A forest is parallel over its trees, so the unit of distributed work is a
block of trees: one learning call of the compiled module, seeded by the
estimator. Two ways of feeding the blocks:

- Scattered (the default): the training set is validated and encoded on the
  client, scattered once to every worker, and each task learns one block
  from the whole of it. The blocks are exactly the local estimator's chunks,
  so the forest equals ``velmot.RandomForestClassifier``'s under the same
  ``random_state`` and ``n_jobs``, whatever the cluster.
- Partition-wise: each task learns its share of the trees from one
  partition of a Dask array or DataFrame, on the worker that holds it, so no
  worker ever holds the whole data set.

Block sizes and seeds depend only on ``random_state``, ``n_estimators``,
``n_jobs`` (and, partition-wise, on the partitions' row counts), never on the
number of workers or the order in which blocks finish: a lost worker's blocks
are learnt again by Dask and come out the same.
"""

import contextlib
import uuid
import weakref
from concurrent.futures import CancelledError
import warnings
from numbers import Integral

import dask
import dask.array as da
import numpy as np
from distributed import Client, as_completed, default_client
from sklearn.base import clone
from sklearn.exceptions import DataConversionWarning
from sklearn.utils._param_validation import Interval
from sklearn.utils.multiclass import check_classification_targets
from sklearn.utils.validation import (
    _check_feature_names,
    _check_n_features,
    check_array,
    check_is_fitted,
    validate_data,
)
from tqdm import tqdm

from ._features import as_module_dtype, feature_major, feature_major_with_constant_row, upper_medians
from ._forest import _MAX_INT32, MAX_SAMPLES, _sampling_proportion, _thread_count
from ._forest import RandomForestClassifier as LocalRandomForestClassifier
from ._learning import draw_chunk_seeds, learn_chunk, plan_chunks, prepared_once

__all__ = ["RandomForestClassifier"]

# Times the training set is scattered before a fit gives up, when workers
# holding its last copy keep being lost.
_SCATTER_ATTEMPTS = 3

# Attributes that make up a fitted forest, copied to the local estimator.
_FITTED_ATTRIBUTES = (
    "classes_",
    "n_classes_",
    "n_features_in_",
    "feature_names_in_",
    "trees_",
    "feature_importances_",
    "_missing_value_fill_",
)


class RandomForestClassifier(LocalRandomForestClassifier):
    """A velmot random forest learnt as tasks on a Dask ``distributed`` cluster.

    The forest, its parameters, attributes and predictions are those of
    ``velmot.RandomForestClassifier``; only the learning is spread over the
    cluster's workers, one task per block of trees.

    By default the training set is gathered on the client, validated and
    encoded there, scattered once to every worker, and each task learns one
    block of trees from all of it; the data must therefore fit in the
    client's and in each worker's memory. The blocks are the local
    estimator's chunks of learning calls, so with an int ``random_state`` the
    forest is identical to ``velmot.RandomForestClassifier`` with the same
    ``random_state`` and ``n_jobs``, on any number of workers.

    With ``partition_wise=True`` and a Dask array or DataFrame, each task
    learns its share of the trees from one partition (a block of rows),
    on the worker that holds it, and no worker ever holds the whole data set.
    Each sub-forest then sees only its own partition: its bootstrap samples
    are drawn from that partition alone, so partitions should be large and
    their rows shuffled. The trees are divided among the non-empty partitions
    as evenly as possible, the earlier partitions taking one more, and
    ``trees_`` lists them partition after partition. Labels are still
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
        the client's cores); the forest depends on it, as locally. Give the
        workers as many threads per task, or leave it at 1 and run more
        worker threads.
    random_state : int, RandomState instance or None, default=None
        An int gives the same forest on every fit with the same ``n_jobs``,
        ``trees_per_block``, data and partitions, on any cluster.
    verbose : int, default=0
        Above 0, a progress bar counts the trees of finished blocks.
    partition_wise : bool, default=False
        Learn each block from one partition of X where it lies, instead of
        scattering the whole training set.
    trees_per_block : int or None, default=None
        Trees per task when scattering. None uses the local estimator's
        chunks (about ten per forest), keeping the forest identical to the
        local one; an int gives more, smaller tasks for a large cluster (the
        forest then differs from the local one, but still not with the
        cluster). Ignored partition-wise, where a partition is a block.
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
        blocks weighted by their numbers of trees.
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

    _parameter_constraints = {
        **LocalRandomForestClassifier._parameter_constraints,
        "partition_wise": ["boolean"],
        "trees_per_block": [Interval(Integral, 1, None, closed="left"), None],
        "client": [Client, None],
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
        )
        self.partition_wise = partition_wise
        self.trees_per_block = trees_per_block
        self.client = client

    def fit(self, X, y):
        """Learn the forest on the cluster from the training set (X, y).

        Parameters
        ----------
        X : array-like, Dask array or Dask DataFrame of shape (n_samples, n_features)
            Training samples, converted as by ``velmot.RandomForestClassifier``.
            Scattered, a Dask collection is first computed on the client.
            Partition-wise, X must be a Dask collection; a Dask array split
            into several column blocks is joined into row blocks.
        y : array-like, Dask array or Dask Series of shape (n_samples,)
            Class labels. Partition-wise, a Dask collection with X's
            partitions (a numpy vector is split like a Dask array X).

        Returns
        -------
        self : RandomForestClassifier
            The fitted estimator.
        """
        self._validate_params()
        client = self._cluster_client()
        if self.partition_wise:
            self._fit_partition_wise(client, X, y)
        else:
            self._fit_scattered(client, X, y)
        return self

    def predict(self, X):
        """Predict the class of each sample by majority vote of the trees.

        Parameters
        ----------
        X : array-like, Dask array or Dask DataFrame of shape (n_samples, n_features)
            Samples. A Dask collection is predicted lazily, block by block.

        Returns
        -------
        y : ndarray or Dask array of shape (n_samples,)
            Predicted labels; a Dask array for a Dask X (with unknown block
            lengths for a DataFrame).
        """
        if dask.is_dask_collection(X):
            return self._predict_lazily(X, "predict")
        return super().predict(X)

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

    def to_local(self):
        """The fitted forest as an ordinary ``velmot.RandomForestClassifier``.

        Returns
        -------
        forest : velmot.RandomForestClassifier
            Same parameters (less the cluster's), trees and attributes; it
            predicts exactly as this estimator does, without a cluster.

        Examples
        --------
        >>> local = forest.to_local()  # doctest: +SKIP
        >>> local.predict(X[:3])  # doctest: +SKIP
        array([0, 0, 0])
        """
        check_is_fitted(self)
        local = LocalRandomForestClassifier(
            **{name: getattr(self, name) for name in LocalRandomForestClassifier._get_param_names()}
        )
        for name in _FITTED_ATTRIBUTES:
            if hasattr(self, name):
                setattr(local, name, getattr(self, name))
        return local

    def save(self, path):
        """Write the fitted forest to a portable ``.npz`` file, without pickle.

        ``velmot.load`` reads it back as an ordinary
        ``velmot.RandomForestClassifier``.

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
                    "velmot.dask.RandomForestClassifier learns on a Dask cluster, but no distributed Client "
                    "was found: create one first (distributed.Client(...)) or pass client=..."
                ) from error
        if client.asynchronous:
            raise ValueError("fit blocks until the forest is learnt; pass a synchronous Client, not an asynchronous one")
        return client

    def _learning_settings(self, n_samples, n_features):
        """The learning call's arguments other than data, trees and seed,
        and whether the features need the extra constant row."""
        features_per_split = self._features_per_split(n_features)
        all_features = features_per_split >= n_features
        settings = {
            "sampling_prop": _sampling_proportion(self._bootstrap_size(n_samples), n_samples),
            "fte_per_split": n_features if all_features else features_per_split,
            "max_depth": 0 if self.max_depth is None else min(self.max_depth, _MAX_INT32),
            "n_threads": _thread_count(self.n_jobs),
            "criterion": self.criterion,
        }
        return settings, all_features

    def _block_sizes(self, n_threads):
        if self.trees_per_block is None:
            return plan_chunks(self.n_estimators, n_threads)
        return [
            min(self.trees_per_block, self.n_estimators - start)
            for start in range(0, self.n_estimators, self.trees_per_block)
        ]

    def _fit_scattered(self, client, X, y):
        X, y = _computed(client, X, y)
        X, y = validate_data(self, X, y, dtype="numeric", ensure_all_finite="allow-nan")
        check_classification_targets(y)
        n_samples, n_features = X.shape
        if n_samples > MAX_SAMPLES:
            raise ValueError(f"X has {n_samples} samples; the library accepts at most {MAX_SAMPLES}.")
        classes, codes = np.unique(y, return_inverse=True)
        X = as_module_dtype(X)
        settings, all_features = self._learning_settings(n_samples, n_features)
        features = feature_major_with_constant_row(X) if all_features else feature_major(X)

        sizes = self._block_sizes(settings["n_threads"])
        seeds = draw_chunk_seeds(self.random_state, len(sizes))
        labels = np.ascontiguousarray(codes, dtype=np.int32)
        fit_id = uuid.uuid4().hex
        blocks = [None] * len(sizes)
        with self._progress_bar() as progress:
            for attempt in range(1, _SCATTER_ATTEMPTS + 1):
                pending = [index for index, block in enumerate(blocks) if block is None]
                # A copy on every worker. Dask drops the copies no waiting
                # task needs, though, and scattered data cannot be recomputed:
                # if the last copy goes down with its worker, the unfinished
                # blocks are cancelled and learnt again from a new scatter.
                data = client.scatter([features, labels], broadcast=True, hash=False)
                futures = []
                try:
                    with _cancelled_on_failure(client, futures):
                        for index in pending:
                            futures.append(
                                client.submit(
                                    _learn_block,
                                    *data,
                                    n_classes=len(classes),
                                    n_trees=sizes[index],
                                    seed=int(seeds[index]),
                                    key=f"velmot-learn-block-{fit_id}-{index}-{attempt}",
                                    **settings,
                                )
                            )
                        for position, block in _finished(futures):
                            blocks[pending[position]] = block
                            progress.update(sizes[pending[position]])
                    break
                except CancelledError:
                    if attempt == _SCATTER_ATTEMPTS or not _lost(client, data):
                        raise
                finally:
                    client.cancel(data)
        self._set_forest(classes, n_features, features.shape[0], sizes, blocks, upper_medians(X))

    def _fit_partition_wise(self, client, X, y):
        X, y, n_features = _aligned_partitions(X, y)
        if n_features < 1:
            raise ValueError("X has no features; pass at least one column.")
        all_features = self._features_per_split(n_features) >= n_features
        _check_feature_names(self, X._meta if hasattr(X, "columns") else np.empty((0, n_features)), reset=True)
        self.n_features_in_ = n_features
        X, y = client.persist([X, y])
        X_parts, y_parts = _delayed_partitions(X), _delayed_partitions(y)
        fit_id = uuid.uuid4().hex

        futures = []
        with _cancelled_on_failure(client, futures):
            futures.extend(
                client.compute(
                    [
                        dask.delayed(_summarize_partition)(
                            X_part, y_part, dask_key_name=f"velmot-summarize-{fit_id}-{i}"
                        )
                        for i, (X_part, y_part) in enumerate(zip(X_parts, y_parts))
                    ]
                )
            )
            summaries = [summary for _, summary in sorted(_finished(futures), key=lambda finished: finished[0])]
        used = [i for i, summary in enumerate(summaries) if summary["n_samples"] > 0]
        if not used:
            raise ValueError("X has no samples; every partition is empty.")
        classes = np.unique(np.concatenate([summaries[i]["classes"] for i in used]))
        check_classification_targets(classes)
        if self.n_estimators < len(used):
            raise ValueError(
                f"n_estimators={self.n_estimators} is less than the {len(used)} non-empty partitions of X, "
                "and each partition learns at least one tree: raise n_estimators or repartition X into fewer, "
                "larger partitions."
            )
        sizes = [self.n_estimators // len(used) + (rank < self.n_estimators % len(used)) for rank in range(len(used))]
        seeds = draw_chunk_seeds(self.random_state, len(used))
        tasks = []
        for rank, (i, size, seed) in enumerate(zip(used, sizes, seeds)):
            settings, _ = self._learning_settings(self._checked_partition_size(summaries[i], i), n_features)
            tasks.append(
                dask.delayed(_learn_partition)(
                    X_parts[i],
                    y_parts[i],
                    classes,
                    all_features,
                    n_trees=size,
                    seed=int(seed),
                    settings=settings,
                    dask_key_name=f"velmot-learn-partition-{fit_id}-{rank}",
                )
            )
        blocks = [None] * len(tasks)
        futures = []
        with _cancelled_on_failure(client, futures), self._progress_bar() as progress:
            futures.extend(client.compute(tasks))
            for position, block in _finished(futures):
                blocks[position] = block
                progress.update(sizes[position])
        medians = _combined_medians([summaries[i] for i in used], n_features)
        self._set_forest(classes, n_features, n_features + int(all_features), sizes, blocks, medians)

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

    def _set_forest(self, classes, n_features, n_importance_rows, sizes, blocks, missing_value_fill):
        """Join the blocks' trees in block order; average the importances of
        blocks that have them, each weighted by its number of trees."""
        trees = []
        importance_sum = np.zeros(n_importance_rows, dtype=np.float64)
        trees_with_importances = 0
        for size, (block_trees, importances) in zip(sizes, blocks):
            trees.extend(block_trees)
            if not np.isnan(importances).any():
                importance_sum += size * importances
                trees_with_importances += size
        self.classes_ = classes
        self.n_classes_ = len(classes)
        self.trees_ = trees
        self.feature_importances_ = (
            np.zeros(n_features)
            if trees_with_importances == 0
            else np.array((importance_sum / trees_with_importances)[:n_features])
        )
        self._missing_value_fill_ = missing_value_fill

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
        elif _is_dask_dataframe(X):
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
            meta = np.empty((0,), dtype=self.classes_.dtype)
        else:
            meta = np.empty((0, self.n_classes_), dtype=np.float64)
        if isinstance(X, da.Array):
            if method == "predict":
                return X.map_blocks(_predict_block, forest, method, drop_axis=1, meta=meta)
            return X.map_blocks(_predict_block, forest, method, chunks=(X.chunks[0], (self.n_classes_,)), meta=meta)
        return X.map_partitions(_predict_block, forest, method, meta=meta)


@contextlib.contextmanager
def _cancelled_on_failure(client, futures):
    """Cancel the futures (filled in within the block) if anything, an error
    or KeyboardInterrupt, leaves the block: no task outlives a failed fit."""
    try:
        yield
    except BaseException:
        client.cancel(futures)
        raise


def _finished(futures):
    """(position in futures, result) of each future, as they finish.

    A task's error is raised; so is a cancellation, which as_completed would
    otherwise hand over in place of the result.
    """
    position = {future.key: index for index, future in enumerate(futures)}
    for future, result in as_completed(futures, with_results=True):
        if future.status == "cancelled":
            raise result if isinstance(result, CancelledError) else CancelledError(f"{future.key} was cancelled")
        yield position[future.key], result


def _lost(client, data):
    """Whether some of the scattered data no longer exists on any worker."""
    if any(future.status != "finished" for future in data):
        return True
    return not all(client.who_has(data).values())


def _computed(client, *values):
    """values with each Dask collection among them computed, all at once so
    that collections sharing a source read it once."""
    lazy = [value for value in values if dask.is_dask_collection(value)]
    futures = []
    with _cancelled_on_failure(client, futures):
        futures.extend(client.compute(lazy))
        results = iter(client.gather(futures))
    return [next(results) if dask.is_dask_collection(value) else value for value in values]


def _is_dask_dataframe(X):
    return dask.is_dask_collection(X) and hasattr(X, "map_partitions") and hasattr(X, "columns")


def _aligned_partitions(X, y):
    """X and y as Dask collections with the same row partitions, and the
    number of features."""
    if isinstance(X, da.Array):
        if X.ndim != 2:
            raise ValueError(f"X must be 2-D, (n_samples, n_features); got a Dask array of shape {X.shape}.")
        if X.numblocks[1] > 1:
            X = X.rechunk({1: -1})
        n_features, n_partitions = X.shape[1], X.numblocks[0]
        known_rows = not any(np.isnan(X.chunks[0]))
    elif _is_dask_dataframe(X):
        n_features, n_partitions = len(X.columns), X.npartitions
        known_rows = False
    else:
        raise ValueError(
            "partition_wise=True learns each block of trees from one partition of a Dask array or DataFrame; "
            f"X is a {type(X).__name__}: pass a Dask collection, or partition_wise=False."
        )

    if not dask.is_dask_collection(y):
        if not known_rows:
            raise ValueError(
                "partition-wise, y must be a Dask collection with the same partitions as X (for example "
                "ddf['label'] beside ddf.drop(columns='label')) when X's partition lengths are unknown."
            )
        y = np.asarray(y)
        if len(y) != X.shape[0]:
            raise ValueError(f"X has {X.shape[0]} samples but y has {len(y)} labels.")
        y = da.from_array(y, chunks=(X.chunks[0],) + y.shape[1:])
    elif isinstance(y, da.Array) and isinstance(X, da.Array) and known_rows:
        if y.shape[0] != X.shape[0]:
            raise ValueError(f"X has {X.shape[0]} samples but y has {y.shape[0]} labels.")
        if y.chunks[0] != X.chunks[0]:
            y = y.rechunk({0: X.chunks[0]})

    if y.ndim == 2 and y.shape[1] == 1:
        warnings.warn(
            "A column-vector y was passed when a 1d array was expected. Please change the shape of y to "
            "(n_samples,), for example using ravel().",
            DataConversionWarning,
            stacklevel=4,
        )
    elif y.ndim != 1:
        raise ValueError(f"y must be a vector of labels, (n_samples,); got {y.ndim} dimensions.")
    y_partitions = y.numblocks[0] if isinstance(y, da.Array) else y.npartitions
    if y_partitions != n_partitions:
        raise ValueError(
            f"X has {n_partitions} partitions but y has {y_partitions}; give y the same partitions as X."
        )
    return X, y, n_features


def _delayed_partitions(collection):
    parts = collection.to_delayed()
    return list(parts.ravel()) if isinstance(parts, np.ndarray) else list(parts)


def _partition_data(X_part, y_part):
    """One partition as the module's matrix (None if empty) and its labels."""
    y = np.asarray(y_part)
    if y.ndim == 2:
        y = y[:, 0]
    if len(X_part) != len(y):
        raise ValueError(
            f"a partition of X has {len(X_part)} rows but its partition of y has {len(y)} labels; "
            "give X and y the same partitions."
        )
    if len(y) == 0:
        return None, y
    return as_module_dtype(check_array(X_part, dtype="numeric", ensure_all_finite="allow-nan")), y


def _summarize_partition(X_part, y_part):
    """What the client needs from a partition before learning: its size, its
    labels, and its medians with the number of values they are taken over."""
    X, y = _partition_data(X_part, y_part)
    if X is None:
        return {"n_samples": 0}
    return {
        "n_samples": len(y),
        "classes": np.unique(y),
        "medians": upper_medians(X),
        "present": None if X.dtype.kind != "f" else np.count_nonzero(~np.isnan(X), axis=0),
    }


# Per worker process: the module's preparation (copy, imputation, ranks) of
# each scattered feature matrix, by the matrix's id, for as long as the
# matrix lives, so that the blocks one worker learns from one scatter
# prepare the features once instead of once per block.
_worker_preparations = {}


def _learn_block(features, labels, **arguments):
    """learn_chunk on a scattered matrix, reusing the preparation of it that
    an earlier block on this worker made."""
    key = id(features)
    view = prepared_once(features)
    view._velmot_prepared = _worker_preparations.get(key)
    result = learn_chunk(view, labels, **arguments)
    if key not in _worker_preparations and view._velmot_prepared is not None:
        # Dropped with the matrix, before its id can be reused.
        weakref.finalize(features, _worker_preparations.pop, key, None)
        _worker_preparations[key] = view._velmot_prepared
    return result


def _learn_partition(X_part, y_part, classes, all_features, *, n_trees, seed, settings):
    X, y = _partition_data(X_part, y_part)
    features = feature_major_with_constant_row(X) if all_features else feature_major(X)
    # Codes over the global classes: a partition lacking a class still
    # learns with the forest's class count.
    labels = np.searchsorted(classes, y).astype(np.int32)
    return learn_chunk(features, labels, n_classes=len(classes), n_trees=n_trees, seed=seed, **settings)


def _combined_medians(summaries, n_features):
    """Per column, the upper weighted median of the partitions' medians,
    weighted by their present values; None when no partition is floating."""
    if all(summary["medians"] is None for summary in summaries):
        return None
    medians = np.array([_zeros_if_none(summary["medians"], n_features) for summary in summaries])
    present = np.array([_zeros_if_none(summary["present"], n_features) for summary in summaries])
    combined = np.zeros(n_features, dtype=np.float64)
    for column in range(n_features):
        order = np.argsort(medians[:, column], kind="stable")
        cumulative = np.cumsum(present[order, column])
        if cumulative[-1] > 0:
            combined[column] = medians[order[np.searchsorted(cumulative, cumulative[-1] // 2, side="right")], column]
    return combined


def _zeros_if_none(values, n_features):
    return np.zeros(n_features) if values is None else values


def _predict_block(block, forest, method):
    with warnings.catch_warnings():
        # Already warned once on the client for the whole collection.
        warnings.filterwarnings("ignore", message="X does not have valid feature names")
        return getattr(forest, method)(block)
