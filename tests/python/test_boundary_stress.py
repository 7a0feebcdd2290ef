"""Thousands of randomly malformed calls of every PyVelmot_wrap function in
one process: each must either succeed or raise a Python exception, and the
process must survive them all (a crash, an abort or a hang fails the run).

Seeded: VELMOT_STRESS_SEED=<n> replays a run; a failure names the call.
The all-features mode (fte_per_split < 1 or >= the feature count) loops
forever on a feature constant within a node, by design, so fte_per_split
always lies strictly between 0 and the feature count here."""

import os

import numpy as np

import PyVelmot_wrap as wrap
from module_helpers import FEATURE_TYPES, LABEL_TYPES, LEARNERS

SEED = int(os.environ.get("VELMOT_STRESS_SEED", "20261122"))
CALLS = 3000
PREDICTORS = [name for name in dir(wrap) if name.startswith(("test_", "prob_"))]
TOKENS = ["(", ")", "left", "right", "threshold", "label", "findex", "0.5", "1", "-1", "nan", "1e400", "9", "x", " "]
HUGE = [2**31 - 1, -(2**31), 2**31 - 2]


def call_of(rng, trees):
    """A function and arguments: mostly well formed, sometimes of another
    type, layout, shape or value."""

    def pick(good, bad=(), p_bad=0.15):
        options = bad if bad and rng.random() < p_bad else good
        return options[rng.integers(len(options))]

    def odd(x, p=0.15):
        return (
            x
            if rng.random() > p
            else pick(
                [
                    x.astype(pick([np.int8, np.int64, np.float16, np.bool_, np.complex128, np.float32])),
                    x[::-1],
                    np.ascontiguousarray(x.T).T,
                    np.repeat(x, 2, axis=-1)[..., ::2],
                    x.reshape(-1),
                    x[np.newaxis],
                    x[..., :-1],
                    np.concatenate([x, x], axis=-1),
                    np.broadcast_to(x.reshape(-1)[:1], x.shape) if x.size else x,
                    np.zeros(()),
                    np.float64(1.5),
                    [[1.0, 2.0]],
                ]
            )
        )

    name = pick(LEARNERS + PREDICTORS, ["set_seed", "init_pool"], 0.03)
    if name in ("set_seed", "init_pool"):
        return getattr(wrap, name), (
            pick([1, 5, 2**32 + 5, -3, 2**63 - 1, "", "/dev/urandom", "/nonexistent/random", b"/dev/urandom\0x"]),
        )
    nf, ni, num_classes = int(rng.integers(2, 6)), int(rng.integers(0, 30)), pick([3, 5, 2], [1, 0, -1, 1000, *HUGE])
    values = rng.normal(scale=4, size=(nf, ni))
    values[rng.random(values.shape) < 0.05] = pick([np.nan, np.inf, -np.inf])
    x, num_threads = odd(values.astype(FEATURE_TYPES[name.split("_")[1][0]])), pick([1, 2, 4], [32, 0, -1, 33, *HUGE])
    if name.startswith("learn_"):
        labels = rng.integers(0, min(max(num_classes, 1), 3), size=ni) + pick([0], [-1, 3, 2**40], 0.05)
        y = odd(labels.astype(LABEL_TYPES[name[7]]))
        return getattr(wrap, name), (
            x,
            y,
            num_classes,
            pick([1, 2, 3, 5], [0, -1, *HUGE]),
            pick([1.0, 0.5, 2.0], [0.0, -0.5, np.nan, 1e300]),
            int(rng.integers(1, nf)),
            pick([0, 0, 1, 3, -1, 2**31 - 1]),
            num_threads,
            pick([0, 1, 255]),
        )
    kind = rng.integers(10)
    if kind < 4:  # learnt trees
        forest = [trees[k].astype(pick([np.float32, np.float64])) for k in rng.integers(len(trees), size=3)]
    elif kind < 7:  # random cells: child indices, features and labels in and out of range
        forest = [
            rng.integers(-2, n + 2, size=(5, n)) * pick([1.0], [np.nan, 0.5, 2.0**31], 0.3)
            for n in rng.integers(0, 7, size=3)
        ]
        forest = [odd(cells, 0.1) for cells in forest]
    elif kind < 9:
        forest = "".join(pick(TOKENS) + pick([" ", ""]) for _ in range(rng.integers(0, 25)))
    else:
        forest = pick([None, 3, [None, "x", [1.0]], (np.zeros((5, 1)),), b"(label 1)\0junk", object()])
    out_type = {"d": np.float64, "s": np.float32, "i": np.int32}[name[-1]]
    classes = max(0, (num_classes if 0 <= num_classes <= 1000 else 3) + pick([0], [1, -1]))
    shape = (ni, classes) if name[0] == "p" else (ni,)
    return getattr(wrap, name), (x, forest, num_classes, odd(np.zeros(shape, out_type), 0.15), num_threads)


@np.errstate(all="ignore")  # casts of NaN and inf while making arguments
def test_random_malformed_calls_succeed_or_raise():
    rng = np.random.default_rng(SEED)
    wrap.set_seed(SEED)
    x = rng.normal(size=(5, 40))
    trees, _ = wrap.learn_di_gini(x, (x[0] > 0).astype(np.int32) + (x[1] > 1), 3, 4, 1.0, 2, 0, 1, 0)
    outcomes = {"succeeded": 0, "raised": 0}
    for call in range(CALLS):
        function, arguments = call_of(rng, trees)
        try:
            result = function(*arguments)
            outcomes["succeeded"] += 1
        except (RuntimeError, TypeError, ValueError, OverflowError):
            outcomes["raised"] += 1
            continue
        except Exception as error:  # SystemError: an error set without a result, or the reverse
            raise AssertionError(f"call {call}: {function.__name__}: {error!r}") from error
        if function.__name__.startswith("learn_") and result[0] and rng.random() < 0.2:
            trees = result[0]  # learnt forests of other shapes for the predictors
    # Both outcomes must have been exercised, or the generator has drifted.
    assert outcomes["succeeded"] > CALLS // 10 and outcomes["raised"] > CALLS // 10, outcomes
    # What the malformed calls left behind must not change a plain call.
    forests = []
    for _ in range(2):
        wrap.set_seed(3)
        forests.append(wrap.learn_di_gini(x, (x[0] > 0).astype(np.int32), 2, 3, 1.0, 2, 0, 1, 0)[0])
    assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(*forests, strict=True))
