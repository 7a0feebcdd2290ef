"""A few small learn/test/prob calls through PyVelmot_wrap, with their error
paths, for scripts/valgrind.sh: every buffer the module allocates on these
paths must be freed by the time the interpreter exits."""

import numpy as np

import PyVelmot_wrap as wrap


def main():
    rng = np.random.default_rng(7)
    x = rng.normal(size=(6, 120))  # feature-major: 6 features, 120 instances
    y = (x[0] + x[1] > 0).astype(np.int32) + (x[2] > 1).astype(np.int32)
    wrap.set_seed(11)

    trees, importances = wrap.learn_di_gini(x, y, 3, 8, 1.0, 2, 0, 2, 1)
    assert len(trees) == 8 and importances.shape == (6,)
    labels = np.zeros(120, dtype=np.int32)
    wrap.test_di(x, trees, 3, labels, 2)
    probs = np.zeros((120, 3))
    wrap.prob_dd(x, trees, 3, probs, 2)
    assert np.allclose(probs.sum(axis=1), 1.0)

    xi = (x * 10).astype(np.int32)
    trees_i, _ = wrap.learn_ii_infogain(xi, y, 3, 4, 0.8, 3, 5, 1, 0)
    wrap.prob_is(xi, [t.astype(np.float32) for t in trees_i], 3, probs.astype(np.float32), 1)
    trees_v, _ = wrap.learn_sd_variance(x.astype(np.float32), y + 0.5, 3, 3, 1.0, 2, 0, 1, 1)
    assert len(trees_v) == 3

    # A matrix that keeps its preparation between calls, then drops it.
    class Keeping(np.ndarray):
        _velmot_prepared = None

    kept = x.view(Keeping)
    kept.flags.writeable = False
    for seed in (3, 4):
        wrap.set_seed(seed)
        wrap.learn_di_gini(kept, y, 3, 2, 1.0, 2, 0, 2, 0)
    del kept

    text = "(threshold 0.5 findex 0 label 0 left (label 0) right (label 2)) (label 1)"
    wrap.test_di(x, text, 3, labels, 1)

    # Error paths: each must release what it built before raising.
    failures = [
        lambda: wrap.learn_di_gini(x, y, 2, 4, 1.0, 2, 0, 1, 0),  # label 2 >= num_classes
        lambda: wrap.learn_di_gini(x, y[:5], 3, 4, 1.0, 2, 0, 1, 0),  # label count
        lambda: wrap.test_di(x, trees + [np.zeros((4, 3))], 3, labels, 1),  # 4-row tree array
        lambda: wrap.test_di(x, "(label 1) (left (label 0) right", 3, labels, 1),  # unbalanced text
        lambda: wrap.test_di(x, "(label 1) (findex 2 threshold", 3, labels, 1),
        lambda: wrap.test_di(
            x,
            [np.array([[1, -1], [-1, -1], [0, 0], [0, 0], [0, 0]], float)] * 2
            + [np.array([[1, 1], [-1, -1], [0, 0], [0, 0], [0, 0]], float)],
            3,
            labels,
            1,
        ),
        lambda: wrap.prob_dd(x, trees, 3, np.zeros((119, 3)), 1),  # output too small
        lambda: wrap.test_di(x, [], 3, labels, 1),  # empty forest
    ]
    for call in failures:
        try:
            call()
        except RuntimeError:
            pass
        else:
            raise AssertionError("an invalid call succeeded")
    print("valgrind round trip: done")


if __name__ == "__main__":
    main()
