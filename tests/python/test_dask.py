"""velmot.dask on a real cluster: two worker processes on loopback, shared
by the whole module. The forests are compared with local ones and with the
module's own predictions, so a fault in how blocks are planned, seeded,
shipped, encoded or combined shows up as a different forest."""

import faulthandler
import gc
import os
import pickle
import signal
import sys
import threading
import time

import numpy as np
import pytest

dask = pytest.importorskip("dask")
distributed = pytest.importorskip("distributed")
da = pytest.importorskip("dask.array")
dd = pytest.importorskip("dask.dataframe")
import cloudpickle  # noqa: E402  (a dependency of distributed)
import pandas as pd  # noqa: E402
from distributed import Client, LocalCluster  # noqa: E402
from sklearn.base import clone  # noqa: E402

import velmot  # noqa: E402
import velmot.dask  # noqa: E402
from velmot._learning import learn_trees, prepare  # noqa: E402
from velmot._nodes import ForestNodes  # noqa: E402
from velmot._settings import resolve_settings  # noqa: E402
from velmot.dask import _estimator, _tasks  # noqa: E402
from velmot.dask._partitions import combined_medians  # noqa: E402

# Partition generators below run on the workers, which cannot import this
# test module; they travel by value.
cloudpickle.register_pickle_by_value(sys.modules[__name__])

WAIT_SECONDS = 30
TEST_SECONDS_LIMIT = 180

# Loopback only. Without a dashboard the scheduler still serves metrics over
# HTTP, by default on port 8787 (with a warning when another cluster holds
# it): a free loopback port is asked for instead.
CLUSTER_OPTIONS = dict(
    threads_per_worker=1,
    host="127.0.0.1",
    dashboard_address=None,
    scheduler_kwargs={"dashboard_address": "127.0.0.1:0"},
)


@pytest.fixture(autouse=True)
def bounded_time():
    """A hung cluster must not hang the suite: past the limit, every
    thread's stack is printed and the run ends."""
    faulthandler.dump_traceback_later(TEST_SECONDS_LIMIT, exit=True)
    yield
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture(scope="module")
def cluster():
    with LocalCluster(n_workers=2, processes=True, **CLUSTER_OPTIONS) as local_cluster:
        yield local_cluster


@pytest.fixture(scope="module")
def client(cluster):
    with Client(cluster) as cluster_client:
        yield cluster_client


def noisy_data(n_samples, n_features=8, seed=0, dtype=np.float64):
    rng = np.random.default_rng(seed)
    X = rng.normal(size=(n_samples, n_features)).astype(dtype)
    y = (X[:, 0] + X[:, 1] * X[:, 2] + rng.normal(size=n_samples) > 0).astype(np.int64)
    y[X[:, 3] > 1.2] = 2
    return X, y


def assert_same_forest(forest, reference):
    assert np.array_equal(forest.classes_, reference.classes_)
    assert len(forest.trees_) == len(reference.trees_)
    for tree, reference_tree in zip(forest.trees_, reference.trees_):
        assert np.array_equal(tree, reference_tree, equal_nan=True)
    assert np.array_equal(forest.feature_importances_, reference.feature_importances_)


# Four partitions of labelled rows, each made on a worker. Feature 0 of
# partition i lies in [i, i + 1.5) and decides the label, so partition 0 has
# "low" and "mid", 2 has "mid" and "high", 3 only "high".
PARTITION_ROWS = 1500
PARTITION_FEATURES = 6


def partition_rows(index):
    rng = np.random.default_rng(100 + index)
    X = rng.normal(size=(PARTITION_ROWS, PARTITION_FEATURES))
    X[:, 0] = index + 1.5 * rng.random(PARTITION_ROWS)
    return X


def partition_labels(index):
    x0 = partition_rows(index)[:, 0]
    return np.where(x0 < 1.2, "low", np.where(x0 < 2.6, "mid", "high"))


def partitioned_data(n_partitions=4):
    def stacked(make, shape, dtype):
        parts = [da.from_delayed(dask.delayed(make)(i), shape=shape, dtype=dtype) for i in range(n_partitions)]
        return da.concatenate(parts)

    return (
        stacked(partition_rows, (PARTITION_ROWS, PARTITION_FEATURES), np.float64),
        stacked(partition_labels, (PARTITION_ROWS,), "<U4"),
    )


# The scheduler runs in this process, on its own thread: its containers are
# copied (list() holds the interpreter lock throughout) before being walked.
def velmot_tasks(cluster):
    return [key for key in list(cluster.scheduler.tasks) if str(key).startswith("velmot-")]


def processing_keys(worker):
    return [str(task.key) for task in list(worker.processing)]


def first_true(probe):
    """Polls probe() until it returns something true, which is returned;
    None once WAIT_SECONDS pass."""
    deadline = time.monotonic() + WAIT_SECONDS
    while time.monotonic() < deadline:
        result = probe()
        if result:
            return result
        time.sleep(0.01)
    return None


def wait_until(condition, what):
    if not first_true(condition):
        pytest.fail(f"timed out waiting for {what}")


class TestScatteredFit:
    @pytest.mark.parametrize(
        "params, trees_per_block, dtype, weights",
        [
            ({}, None, np.float64, None),
            ({"n_jobs": 2, "criterion": "entropy", "max_features": None}, 5, np.float32, None),
            ({"max_samples": 0.5, "max_depth": 4, "criterion": "gain_ratio"}, 1, np.int64, None),
            ({"oob_score": True, "class_weight": "balanced", "min_samples_leaf": 3}, 4, np.float64, [0, 1, 2.5]),
        ],
    )
    @pytest.mark.filterwarnings("ignore:.*no out-of-bag estimate")
    def test_forest_equals_the_local_forest(self, client, params, trees_per_block, dtype, weights):
        X, y = noisy_data(600)
        X = (X * 10).astype(dtype)
        if dtype != np.int64:
            X[::7, 1] = np.nan
        sample_weight = None if weights is None else np.resize(weights, len(y))
        forest = velmot.dask.RandomForestClassifier(
            n_estimators=23, random_state=5, client=client, trees_per_block=trees_per_block, **params
        )
        forest.fit(X, y, sample_weight=sample_weight)
        # Any block split and thread count: the same forest.
        local = velmot.RandomForestClassifier(n_estimators=23, random_state=5, **{**params, "n_jobs": 3})
        local.fit(X, y, sample_weight=sample_weight)
        assert_same_forest(forest, local)
        assert np.array_equal(forest._missing_value_fill_, local._missing_value_fill_)
        assert np.array_equal(forest.predict_proba(X), local.predict_proba(X))
        if "oob_score" in params:
            assert np.array_equal(forest.oob_decision_function_, local.oob_decision_function_, equal_nan=True)

    def test_dask_inputs_are_gathered_keep_feature_names_and_are_predicted_in_order(self, client):
        X, y = noisy_data(400)
        frame = pd.DataFrame(X, columns=[f"f{i}" for i in range(X.shape[1])])
        labels = pd.Series(np.array(["no", "yes", "maybe"])[y])
        forest = velmot.dask.RandomForestClassifier(n_estimators=12, random_state=1)  # the default client
        forest.fit(dd.from_pandas(frame, npartitions=3), dd.from_pandas(labels, npartitions=3))
        local = velmot.RandomForestClassifier(n_estimators=12, random_state=1).fit(frame, labels)
        assert_same_forest(forest, local)
        assert list(forest.feature_names_in_) == list(frame.columns)
        # Filtering leaves empty partitions, which give empty results.
        lazy = dd.from_pandas(frame, npartitions=4).map_partitions(lambda part: part[part.index < 150])
        kept = frame[frame.index < 150]
        assert np.array_equal(forest.predict(lazy).compute(), local.predict(kept))
        assert np.array_equal(forest.predict_proba(lazy).compute(), local.predict_proba(kept))

    def test_a_worker_prepares_a_scattered_matrix_once_and_frees_it_with_the_matrix(self):
        X, y = noisy_data(300)
        features, labels = np.ascontiguousarray(X.T), y.astype(np.int32)
        forest = velmot.dask.RandomForestClassifier(n_estimators=2, max_features=3, random_state=3)
        settings = resolve_settings(forest, *X.shape)
        arguments = dict(first_tree=2, last_tree=4, settings=settings)
        key = id(features)
        _tasks.learn_block(features, labels, n_classes=3, seed=4, **arguments)
        kept = _tasks._worker_preparations[key]
        reused, *_ = _tasks.learn_block(features, labels, n_classes=3, seed=6, **arguments)
        assert _tasks._worker_preparations[key] is kept
        fresh, *_ = learn_trees(prepare(features.copy(), labels, n_classes=3, settings=settings), seed=6, **arguments)
        assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(reused.tree_arrays(), fresh.tree_arrays()))
        del features
        gc.collect()
        assert key not in _tasks._worker_preparations


@pytest.fixture(scope="module")
def fitted(client):
    X, y = noisy_data(700, seed=3)
    forest = velmot.dask.RandomForestClassifier(n_estimators=15, random_state=2, client=client).fit(X, y)
    return forest, X


class TestPrediction:
    def test_lazy_predictions_equal_the_local_forests(self, fitted):
        forest, X = fitted
        X_dask = da.from_array(X, chunks=(160, 5))
        local = forest.to_local()
        for method in ("predict", "predict_proba", "predict_log_proba"):
            lazy = getattr(forest, method)(X_dask)
            assert isinstance(lazy, da.Array)
            with np.errstate(divide="ignore"):
                assert np.array_equal(lazy.compute(), getattr(local, method)(X))
        with pytest.raises(ValueError, match="features"):
            forest.predict(da.from_array(X[:, :3], chunks=100))

    def test_clone_pickle_and_save_keep_the_forest(self, fitted, client, tmp_path):
        forest, X = fitted
        assert clone(forest).client is client
        restored = pickle.loads(pickle.dumps(forest))
        assert restored.client is None and forest.client is client
        assert np.array_equal(restored.predict_proba(X), forest.predict_proba(X))
        forest.save(tmp_path / "forest.npz")
        loaded = velmot.load(tmp_path / "forest.npz")
        assert type(loaded) is velmot.RandomForestClassifier
        assert np.array_equal(loaded.predict_proba(X), forest.predict_proba(X))


class TestPartitionWise:
    def test_labels_are_encoded_over_all_partitions(self, client):
        X, y = partitioned_data()
        forest = velmot.dask.RandomForestClassifier(
            n_estimators=8, partition_wise=True, max_features=None, random_state=0, client=client
        ).fit(X, y)
        assert list(forest.classes_) == ["high", "low", "mid"]
        # Two trees per partition, in partition order; each pair must have
        # learnt its own partition's labels under the global codes.
        for index in range(4):
            sub_forest = forest.to_local()
            sub_forest.nodes_ = ForestNodes.from_tree_arrays(forest.trees_[2 * index : 2 * index + 2])
            rows, labels = partition_rows(index), partition_labels(index)
            assert np.mean(sub_forest.predict(rows) == labels) > 0.95
            leaf_codes = {int(code) for tree in sub_forest.trees_ for code in tree[4][tree[2] == -1]}
            assert leaf_codes <= set(np.searchsorted(forest.classes_, np.unique(labels)))
        assert forest.predict_proba(partition_rows(3)).shape == (PARTITION_ROWS, 3)

    def test_forest_is_reproducible_and_shares_trees_evenly(self, client):
        X, y = partitioned_data(n_partitions=3)
        frame = dd.from_dask_array(X, columns=[f"c{i}" for i in range(PARTITION_FEATURES)])
        labels = dd.from_dask_array(y)
        params = dict(n_estimators=7, partition_wise=True, random_state=4, client=client)
        from_array = velmot.dask.RandomForestClassifier(**params).fit(X, y)
        from_frame = velmot.dask.RandomForestClassifier(**params).fit(frame, labels)
        assert_same_forest(from_frame, from_array)
        assert list(from_frame.feature_names_in_) == list(frame.columns)
        # 3 + 2 + 2 trees: trees 3 and 4 come from partition 1, which has no
        # "high"; partition 2, which has, would leave some in tree 4.
        high = list(from_array.classes_).index("high")
        assert all(high not in tree[4][tree[2] == -1] for tree in from_array.trees_[3:5])
        assert any(high in tree[4][tree[2] == -1] for tree in from_array.trees_[5:])

    def test_missing_values_are_filled_by_the_weighted_median_of_medians(self):
        summaries = [
            {"medians": np.array([1.0, 7.0]), "present": np.array([10, 0])},
            {"medians": np.array([5.0, 8.0]), "present": np.array([1, 4])},
            {"medians": np.array([3.0, 9.0]), "present": np.array([10, 5])},
        ]
        assert np.array_equal(combined_medians(summaries, 2), [3.0, 9.0])

    def test_bad_partitioning_is_refused(self, client):
        X, y = partitioned_data()
        forest = velmot.dask.RandomForestClassifier(n_estimators=3, partition_wise=True, client=client)
        with pytest.raises(ValueError, match="less than the 4 non-empty partitions"):
            forest.fit(X, y)
        with pytest.raises(ValueError, match="partition 0 of X"):
            forest.set_params(n_estimators=4, max_samples=PARTITION_ROWS + 1).fit(X, y)
        with pytest.raises(ValueError, match="4 partitions but y has 2"):
            forest.set_params(max_samples=None).fit(dd.from_dask_array(X), dd.from_dask_array(y.rechunk(3000)))
        with pytest.raises(ValueError, match="pass a Dask collection"):
            forest.fit(np.zeros((10, 2)), np.zeros(10))
        # Checked on the worker that holds the partition, raised here.
        with pytest.raises(ValueError, match="infinity"):
            forest.fit(da.where(X > 4.4, np.inf, X), y)


@pytest.fixture(scope="module")
def slow_data():
    return noisy_data(8000, n_features=10, seed=7)


def no_client():
    raise ValueError("No clients found")


def test_fit_without_a_client_says_how_to_get_one(monkeypatch):
    monkeypatch.setattr(_estimator, "default_client", no_client)
    with pytest.raises(ValueError, match="distributed.Client"):
        velmot.dask.RandomForestClassifier().fit(np.zeros((4, 2)), [0, 1, 0, 1])


class TestFailures:
    """A worker killed mid-fit, and a fit interrupted by the user. Blocks
    take a fraction of a second here, so that both land mid-fit."""

    N_TREES = 30

    # Killing every worker also loses every copy of the scattered training
    # set, which Dask cannot recompute: the fit must scatter it again.
    @pytest.mark.parametrize("victims", ["one worker", "every worker"])
    def test_killed_workers_do_not_change_the_forest(self, cluster, client, slow_data, victims):
        X, y = slow_data
        pids = client.run(os.getpid)
        killed = []

        def kill_once_learning():
            busy = first_true(
                lambda: [
                    address
                    for address, worker in list(cluster.scheduler.workers.items())
                    if any(key.startswith("velmot-learn") for key in processing_keys(worker))
                ]
            )
            if busy:
                killed.extend(busy[:1] if victims == "one worker" else list(pids))
                for address in killed:
                    os.kill(pids[address], signal.SIGKILL)

        killer = threading.Thread(target=kill_once_learning)
        killer.start()
        try:
            forest = velmot.dask.RandomForestClassifier(n_estimators=self.N_TREES, random_state=11, client=client).fit(
                X, y
            )
        finally:
            killer.join()
            client.wait_for_workers(2, timeout=WAIT_SECONDS)
        assert len(killed) == (1 if victims == "one worker" else 2)
        local = velmot.RandomForestClassifier(n_estimators=self.N_TREES, random_state=11).fit(X, y)
        assert_same_forest(forest, local)

    @pytest.mark.parametrize("partition_wise", [False, True])
    def test_interrupted_fit_leaves_no_tasks_behind(self, cluster, client, slow_data, partition_wise, monkeypatch):
        X, y = slow_data
        if partition_wise:
            X, y = da.from_array(X, chunks=(2000, -1)), da.from_array(y, chunks=2000)
        finished = _estimator.finished

        def interrupted_while_learning(futures):
            # The user's Ctrl-C, once every block is submitted and fit waits.
            if any(str(future.key).startswith("velmot-learn") for future in futures):
                raise KeyboardInterrupt
            yield from finished(futures)

        monkeypatch.setattr(_estimator, "finished", interrupted_while_learning)
        with pytest.raises(KeyboardInterrupt) as interrupted:
            velmot.dask.RandomForestClassifier(
                n_estimators=self.N_TREES, partition_wise=partition_wise, random_state=0, client=client
            ).fit(X, y)
        # The traceback still holds fit's futures: only cancelling frees them.
        assert interrupted.traceback
        wait_until(lambda: not velmot_tasks(cluster), "the cancelled blocks to leave the scheduler")
        wait_until(
            lambda: not any(processing_keys(worker) for worker in list(cluster.scheduler.workers.values())),
            "the workers to finish",
        )


def test_regressor_equals_the_local_one_and_learns_partition_wise(client):
    X, _ = noisy_data(600)
    y = 2 * X[:, 0] + X[:, 1] * X[:, 2]
    local = velmot.RandomForestRegressor(n_estimators=6, random_state=3).fit(X, y)
    forest = velmot.dask.RandomForestRegressor(n_estimators=6, trees_per_block=4, random_state=3, client=client)
    forest.fit(X, y)
    for name, array in local.nodes_.as_dict().items():
        np.testing.assert_array_equal(getattr(forest.nodes_, name), array)
    X_blocks, y_blocks = da.from_array(X, chunks=(300, 8)), da.from_array(y, chunks=300)
    np.testing.assert_array_equal(forest.predict(X_blocks).compute(), local.predict(X))
    forest.set_params(partition_wise=True).fit(X_blocks, y_blocks)
    assert forest.nodes_.n_trees == 6 and forest.score(X, y) > 0.8
