"""Thousands of randomly malformed calls of every PyVelmot_wrap function in
one process: each must either succeed or raise a Python exception, and the
process must survive them all (a crash, an abort or a hang fails the run).

Seeded: VELMOT_STRESS_SEED=<n> replays a run; a failure names the call.
The all-features mode (fte_per_split < 1 or >= the feature count) loops
forever on a feature constant within a node, by design, so fte_per_split
always lies strictly between 0 and the feature count here."""

import os
import subprocess
import sys

import numpy as np
import pytest

import PyVelmot_wrap as wrap

SEED = int(os.environ.get("VELMOT_STRESS_SEED", "20261122"))
CALLS = 3000

LEARNERS = [name for name in dir(wrap) if name.startswith("learn_")]
PREDICTORS = [name for name in dir(wrap) if name.startswith(("test_", "prob_"))]
DTYPES = [np.int32, np.float64, np.float32, np.uint8, np.int8, np.int64, np.float16, np.bool_, np.complex128]
# 2**31 - 2 and above are refused before anything is sized by them.
LETTERS = {"i": np.int32, "d": np.float64, "s": np.float32, "b": np.uint8}
HUGE_INTS = [2**31 - 1, -(2**31), 2**31 - 2]


class Arguments:
    def __init__(self, rng):
        self.rng = rng

    def pick(self, options):
        return options[self.rng.integers(len(options))]

    def chance(self, p):
        return self.rng.random() < p

    def matrix(self, num_features, num_instances, dtype):
        """A feature-major matrix of the function's element type, mostly well
        formed; sometimes of another dimension count, type or memory layout."""
        rng = self.rng
        dtype = self.pick(DTYPES) if self.chance(0.2) else dtype
        values = rng.normal(scale=4, size=(num_features, num_instances))
        if self.chance(0.2):
            values[rng.random(values.shape) < 0.2] = self.pick([np.nan, np.inf, -np.inf])
        x = values.astype(dtype)  # the test ignores cast warnings
        layout = rng.integers(6)
        if layout == 1:
            x = np.ascontiguousarray(x.T).T  # instance-major memory
        elif layout == 2:
            x = np.repeat(x, 2, axis=1)[:, ::2]  # every second column
        elif layout == 3:
            x = x[::-1, ::-1]  # negative strides
        elif layout == 4 and num_features:
            x = np.broadcast_to(x[:, :1], x.shape)  # zero instance stride, read-only
        x = self.pick([x.ravel(), x[np.newaxis], np.float64(1.5), np.zeros((2, 2, 2))]) if self.chance(0.08) else x
        return [[1.0, 2.0]] if self.chance(0.02) else x  # sometimes not an array at all

    def labels(self, num_instances, num_classes, dtype):
        rng = self.rng
        high = max(1, min(num_classes, 5)) if isinstance(num_classes, int) else 3
        y = rng.integers(0, high, size=num_instances)
        if num_instances and self.chance(0.1):
            y[rng.integers(num_instances)] = self.pick([-1, high, 2**40])
        dtype = self.pick(DTYPES) if self.chance(0.2) else dtype
        y = y.astype(dtype)
        if self.chance(0.1):
            y = self.pick([y[:-1], np.concatenate([y, y]), y.reshape(1, -1), np.int32(1), y[::-1]])
        return y

    def num_classes(self):
        return self.pick([3, 3, 5, 2]) if self.chance(0.8) else self.pick([1, 0, -1, 1000, *HUGE_INTS])

    def num_threads(self):
        return self.pick([1, 2, 4]) if self.chance(0.85) else self.pick([32, 0, -1, 33, 2**31 - 1])

    def forest(self, trees, num_features):
        rng = self.rng
        kind = rng.integers(10)
        if kind < 4 and trees:
            chosen = [trees[k] for k in rng.integers(len(trees), size=rng.integers(0, 4))]
            return [t.astype(np.float32) if self.chance(0.3) else t for t in chosen]
        if kind < 7:
            return [self.tree_array(num_features) for _ in range(rng.integers(0, 4))]
        if kind < 9:
            return self.tree_text(num_features)
        return self.pick([None, 3, [None, "x", [1.0]], (np.zeros((5, 1)),), "", b"(label 1)\0junk", object()])

    def tree_array(self, num_features):
        """A tree array with random, often invalid, child indices, features,
        labels and shapes."""
        rng = self.rng
        n = int(rng.integers(0, 7))
        cells = rng.integers(-2, n + 2, size=(5, n)).astype(np.float64)
        cells[2] = rng.integers(-1, num_features + 2, size=n)
        cells[3] = rng.normal(size=n)
        if self.chance(0.2):
            cells[rng.integers(5), :] = self.pick([np.nan, np.inf, -np.inf, 1e300, 2.0**31, 0.5])
        if self.chance(0.1):
            cells = self.pick([cells[:4], cells.ravel(), cells[np.newaxis], np.vstack([cells, cells])])
        cells = cells.astype(self.pick([np.float32, np.int32, np.float16])) if self.chance(0.1) else cells
        return cells

    def tree_text(self, num_features):
        rng = self.rng
        pieces = ["(", ")", "left", "right", "threshold", "label", "findex", "0.5", "1", "-1", "nan", "1e400",
                  str(num_features + 1), "x", " ", "\n", "9999999999"]
        if self.chance(0.5):
            # Mostly well formed: a leaf or a split over two leaves.
            f = rng.integers(-1, num_features + 1)
            text = f"(threshold 0.5 findex {f} label 0 left (label {rng.integers(-2, 4)}) right (label 1))"
            text = text * int(rng.integers(1, 3))
        else:
            text = "".join(self.pick(pieces) + self.pick([" ", ""]) for _ in range(rng.integers(0, 25)))
        return text.encode() if self.chance(0.2) else text

    def output(self, num_instances, num_classes, probabilities, dtype):
        rows = max(0, num_instances + self.pick([0, 0, 0, 1, -1]))
        if probabilities:
            cols = num_classes if 0 <= num_classes <= 1000 else 3
            cols = max(0, cols + self.pick([0, 0, 0, 1, -1]))
            dtype = self.pick([np.float64, np.float32, np.float16, np.int32]) if self.chance(0.2) else dtype
            # Sometimes the transpose of a classes x instances array.
            out = np.zeros((cols, rows), dtype=dtype).T if self.chance(0.2) else np.zeros((rows, cols), dtype=dtype)
        else:
            dtype = self.pick([np.int64, np.int8, np.float32]) if self.chance(0.2) else dtype
            # Sometimes every second element of a longer vector.
            out = np.zeros(2 * rows, dtype=dtype)[::2] if self.chance(0.2) else np.zeros(rows, dtype=dtype)
        if self.chance(0.1):
            out = self.pick([out.reshape(-1), out[np.newaxis], np.zeros(()), np.zeros((2, 2, 2))])
        if self.chance(0.05):
            out.flags.writeable = False
        return out


def sizes(args):
    """Feature, instance and class counts of a call."""
    return int(args.rng.integers(2, 6)), int(args.rng.integers(0, 30)), args.num_classes()


def learning_call(args, name):
    num_features, num_instances, num_classes = sizes(args)
    x = args.matrix(num_features, num_instances, LETTERS[name[len("learn_")]])
    y = args.labels(num_instances, num_classes, LETTERS[name[len("learn_") + 1]])
    num_trees = args.pick([1, 2, 3, 5]) if args.chance(0.8) else args.pick([0, -1, 2**31 - 1, -(2**31)])
    sampling_prop = args.pick([1.0, 0.5, 2.0]) if args.chance(0.7) else args.pick(
        [0.0, -0.5, np.nan, np.inf, 1e300, 5e-324])
    fte_per_split = int(args.rng.integers(1, num_features))
    max_depth = args.pick([0, 0, 1, 3, -1, 2**31 - 1])
    importances = args.pick([0, 1, 255])
    return getattr(wrap, name), (x, y, num_classes, num_trees, sampling_prop, fte_per_split, max_depth,
                                 args.num_threads(), importances)


def prediction_call(args, name, trees):
    num_features, num_instances, num_classes = sizes(args)
    x = args.matrix(num_features, num_instances, LETTERS[name[len("test_")]])
    out = args.output(num_instances, num_classes, name.startswith("prob_"), LETTERS[name[len("test_") + 1]])
    return getattr(wrap, name), (x, args.forest(trees, num_features), num_classes, out, args.num_threads())


def pool_call(args):
    if args.chance(0.5):
        return wrap.set_seed, (args.pick([1, 5, 2**32 + 5, -3, 2**63 - 1]),)
    return wrap.init_pool, (args.pick(["", "/dev/urandom", "/nonexistent/random", b"/dev/urandom\0x", 3]),)


def describe(function, arguments):
    def short(value):
        if isinstance(value, np.ndarray):
            return f"array(shape={value.shape}, dtype={value.dtype}, strides={value.strides})"
        return "[" + ", ".join(map(short, value)) + "]" if isinstance(value, list) else repr(value)[:80]

    return f"{function.__name__}({', '.join(map(short, arguments))})"


@np.errstate(all="ignore")  # casts of NaN and inf while making arguments
def test_random_malformed_calls_succeed_or_raise():
    rng = np.random.default_rng(SEED)
    args = Arguments(rng)
    wrap.set_seed(SEED)
    # Valid trees to hand to the predictors alongside the malformed ones.
    x = rng.normal(size=(5, 40))
    trees, _ = wrap.learn_di_gini(x, (x[0] > 0).astype(np.int32) + (x[1] > 1), 3, 4, 1.0, 2, 0, 1, 0)
    outcomes = {"succeeded": 0, "raised": 0}
    for call in range(CALLS):
        kind = rng.random()
        if kind < 0.45:
            function, arguments = learning_call(args, args.pick(LEARNERS))
        elif kind < 0.97:
            function, arguments = prediction_call(args, args.pick(PREDICTORS), trees)
        else:
            function, arguments = pool_call(args)
        try:
            result = function(*arguments)
        except (RuntimeError, TypeError, ValueError, OverflowError, SystemError) as error:
            # SystemError would mean an error set without a result or the
            # reverse: never acceptable.
            assert not isinstance(error, SystemError), f"call {call}: {describe(function, arguments)}: {error!r}"
            outcomes["raised"] += 1
            continue
        outcomes["succeeded"] += 1
        if function.__name__.startswith("learn_"):
            forest, importances = result
            assert all(t.dtype == np.float64 and t.ndim == 2 and t.shape[0] == 5 for t in forest), call
            if len(forest) > 0 and importances is not None:
                assert importances.shape == (arguments[0].shape[0],)
            # Keep a few learnt forests for the predictors.
            if forest and rng.random() < 0.2:
                trees = forest
    # Both outcomes must have been exercised, or the generator has drifted.
    assert outcomes["succeeded"] > CALLS // 10 and outcomes["raised"] > CALLS // 10, outcomes
    # State the malformed calls left behind (the thread count, the pool)
    # must not make later calls misbehave: a plain call is reproducible.
    forests = []
    for _ in range(2):
        wrap.set_seed(3)
        forests.append(wrap.learn_di_gini(x, (x[0] > 0).astype(np.int32), 2, 3, 1.0, 2, 0, 1, 0)[0])
    assert len(forests[0]) == 3 and all(np.array_equal(a, b, equal_nan=True) for a, b in zip(*forests))
    wrap.set_seed(1)


class TestGuards:
    """The inputs that would otherwise read or write outside memory, end the
    process inside a parallel region, or exhaust memory before failing."""

    x = np.random.default_rng(4).normal(size=(3, 20))

    @pytest.fixture
    def trees(self):
        wrap.set_seed(4)
        return wrap.learn_di_gini(self.x, (self.x[0] > 0).astype(np.int32), 2, 3, 1.0, 1, 0, 1, 0)[0]

    @pytest.fixture
    def labels(self):
        return np.zeros(20, dtype=np.int32)

    def test_prediction_thread_counts_and_class_counts(self, trees, labels):
        with pytest.raises(RuntimeError, match="num_threads must be at most 32"):
            wrap.test_di(self.x, trees, 2, labels, 100_000)  # would end the process starting threads
        for huge in (2**31 - 2, 2**31 - 1):
            with pytest.raises(RuntimeError, match=f"num_classes must be at most 2147483645, not {huge}"):
                wrap.test_di(self.x, trees, huge, labels, 1)
        wrap.test_di(self.x, trees, 2, labels, 32)

    def test_learning_class_and_tree_counts_fail_before_any_work(self):
        y = (self.x[0] > 0).astype(np.int32)
        with pytest.raises(RuntimeError, match="data set has too many classes"):
            wrap.learn_di_gini(self.x, y, 2**31 - 1, 2, 1.0, 1, 0, 1, 0)
        with pytest.raises(RuntimeError, match="num_trees=2147483647 cannot fit in this machine's"):
            wrap.learn_di_gini(self.x, y, 2, 2**31 - 1, 1.0, 1, 0, 2, 0)
        with pytest.raises(RuntimeError):  # a negative count is an allocation error
            wrap.learn_di_gini(self.x, y, 2, -1, 1.0, 1, 0, 2, 0)

    def test_tree_arrays_past_the_32_bit_views(self, trees, labels):
        leaves = np.broadcast_to(np.array([[-1.0], [-1.0], [0.0], [0.5], [1.0]]), (5, 2**31 + 7))
        with pytest.raises(RuntimeError, match="more than 2147483647 columns"):
            wrap.test_di(self.x, [leaves], 2, labels, 1)
        # A row stride no 32-bit view holds; the memory is never touched.
        far = np.lib.stride_tricks.as_strided(trees[0], shape=(5, 1), strides=(2**33, 8))
        with pytest.raises(RuntimeError, match="forest\\[i\\] stride 0 is 8589934592 bytes"):
            wrap.test_di(self.x, [far], 2, labels, 1)

    def test_nan_and_infinite_child_indices(self, labels):
        labels[:] = 7
        # NaN and negative children are absent children: the root is a leaf.
        tree = np.array([[np.nan, -1.0], [-np.inf, -1.0], [0, 0], [0.5, 0], [1, 0]])
        wrap.test_di(self.x, [tree], 2, labels, 1)
        assert (labels == 1).all()
        tree[0, 0] = np.inf
        with pytest.raises(RuntimeError, match="child index out of range"):
            wrap.test_di(self.x, [tree], 2, labels, 1)

    def test_probability_output_strides_past_32_bits(self, trees):
        far = np.lib.stride_tricks.as_strided(np.zeros((20, 2)), shape=(20, 2), strides=(2**32, 8))
        with pytest.raises(RuntimeError, match="probs_out_ stride 0 is 4294967296 bytes"):
            wrap.prob_dd(self.x, trees, 2, far, 1)

    def test_deeply_nested_text_forest(self, labels):
        depth = 200_000
        # Every split sends every value left, down to the one leaf.
        text = "(" + "findex 0 threshold 1e300 left (" * depth + "label 1" + ")" * (depth + 1)
        wrap.test_di(self.x, text, 2, labels, 1)
        assert (labels == 1).all()
        with pytest.raises(RuntimeError, match="unbalanced parentheses"):
            wrap.test_di(self.x, "(" + "left (" * depth, 2, labels, 1)

    @pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="ASan reserves more address space")
    def test_a_class_count_memory_cannot_hold_fails_cleanly(self):
        """Histograms are sized by num_classes: with 16 GiB needed per
        histogram and 4 GiB of address space, learning must raise, not abort."""
        script = (
            "import resource, numpy as np, PyVelmot_wrap as w\n"
            "resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))\n"
            "x = np.arange(40.0).reshape(2, 20); y = np.zeros(20, np.int32)\n"
            "try: w.learn_di_gini(x, y, 2**31 - 3, 2, 1.0, 1, 0, 1, 0)\n"
            "except RuntimeError as e: print('raised', e)\n"
        )
        result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=120)
        assert result.returncode == 0, result.stderr
        assert result.stdout.startswith("raised"), result.stdout
