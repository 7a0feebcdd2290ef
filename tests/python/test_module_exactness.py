"""Forests learnt under set_seed, recomputed by an independent Python learner.

The reference below follows the written algorithm step by step (generator,
pool seeding through libc's srand/rand, bootstrap draws, feature sampling,
Gini split sweep with its label-change rule, tie-breaking
draws, leaf labels, breadth-first export, importances, the division of trees
among threads), so a change in the order or number of random draws, in a
threshold rule or in a tie rule makes the arrays differ.
"""

import ctypes
import itertools
import math
from collections import deque

import numpy as np
import pytest

import PyVelmot_wrap as wrap

_libc = ctypes.CDLL(None)
_libc.srand.argtypes = [ctypes.c_uint]


class Generator:
    def __init__(self, words):
        self.words = list(words)

    def next_int(self):
        x, y, z, w = self.words
        t = (x ^ y ^ z ^ w ^ (x << 20) ^ (y >> 11) ^ (z << 27) ^ (w >> 6)) & ((1 << 64) - 1)
        self.words = [y, z, w, t - (1 << 64) if t >= 1 << 63 else t]
        return self.words[3]

    def bounded(self, limit):
        r = self.next_int()
        r = r if r >= 0 or r == -(1 << 63) else -r  # the magnitude, which overflows at the minimum
        return r % limit if r >= 0 else -((-r) % limit)  # truncating division, as C++ has it

    def next_double(self):
        return self.bounded(1000000) / 1000000.0


def seeded_pool(seed):
    """32 generators seeded from libc's rand, zero words skipped."""
    _libc.srand(seed)
    words = list(itertools.islice((abs(word) for word in iter(_libc.rand, None) if word), 4 * 32))
    return [Generator(words[k : k + 4]) for k in range(0, 4 * 32, 4)]


def tie_break(rng, candidates):
    """The first best (value, item); the k-th equal value takes over when 1/k beats a draw."""
    best, ties = None, 0
    for value, item in candidates:
        if best is None or value > best[0]:
            best, ties = (value, item), 1
        elif value == best[0]:
            ties += 1
            if 1.0 / ties > rng.next_double():
                best = (value, item)
    return best


def gini(counts):
    total = sum(counts)
    return sum(c * c for c in counts) / total if total else 0.0


def leaf_label(counts, rng):
    return tie_break(rng, ((counts[slot], slot - 1) for slot in range(1, len(counts))))[1]


def best_split(X, y, items, f, node_counts, integer_features):
    """(score, (feature, threshold, Gini improvement)) of the best split on f."""
    pairs = sorted((X[i][f], y[i]) for i in items)
    best_value, threshold = gini(node_counts), pairs[0][0]
    left, right = [0] * len(node_counts), list(node_counts)
    left[pairs[0][1] + 1] += 1
    right[pairs[0][1] + 1] -= 1
    first_label, different = pairs[0][1], False
    if len(pairs) > 2 and pairs[0][0] != pairs[-1][0]:
        for (previous, _), (value, label) in zip(pairs, pairs[1:]):
            different = different or label != first_label
            if previous != value and different:
                if gini(left) + gini(right) > best_value:
                    best_value = gini(left) + gini(right)
                    threshold = value if integer_features else (previous + value) * 0.5
                different, first_label = False, label
            left[label + 1] += 1
            right[label + 1] -= 1
    gain = best_value - gini(node_counts)
    return gain, (f, threshold, gain)


def new_node():
    return {"left": -1, "right": -1, "feature": -1, "threshold": math.nan, "label": -2}


def learn_tree(X, y, sample, num_classes, fte_per_split, max_depth, rng, integer_features):
    """The tree as its (5, n) array, and the normalised importances."""
    nf = len(X[0])
    importances = [0.0] * nf
    nodes = [new_node()]  # created breadth first: the exported order
    queue = deque([(nodes[0], list(sample), 0)])
    while queue:
        node, items, depth = queue.popleft()
        counts = [0] * (num_classes + 2)
        for i in items:
            counts[y[i] + 1] += 1
        if max(counts[1:]) == len(items) or len(items) <= 1:
            node["label"] = leaf_label(counts, rng)
            continue
        assert 1 <= fte_per_split < nf, "all-features mode can search forever; keep the test in random mode"

        def candidates(items=items, counts=counts):  # drawn lazily: feature and tie draws interleave
            chosen, evaluated = set(), 0
            while evaluated < fte_per_split and len(chosen) < nf:
                while (f := rng.bounded(nf)) in chosen:
                    pass
                chosen.add(f)
                if len({X[i][f] for i in items}) > 1:
                    evaluated += 1
                    yield best_split(X, y, items, f, counts, integer_features)

        best = tie_break(rng, candidates())
        f, threshold, gain = best[1] if best else (-1, 0, 0.0)
        left = [i for i in items if f >= 0 and X[i][f] < threshold]
        right = [i for i in items if not (f >= 0 and X[i][f] < threshold)]
        node.update(threshold=float(threshold), feature=f)
        if gain > 0:
            importances[f] += gain * len(items)
        if len(left) > 1 and len(right) > 1 and not 0 < max_depth < depth + 1:
            node["left"], node["right"] = len(nodes), len(nodes) + 1
            nodes += [new_node(), new_node()]
            queue.extend([(nodes[-2], left, depth + 1), (nodes[-1], right, depth + 1)])
        else:
            node.update(label=leaf_label(counts, rng), feature=-1)
    total = sum(importances)  # no guard: a tree without a useful split has NaN importances
    return np.array([list(node.values()) for node in nodes]).T, [v / total if total else math.nan for v in importances]


def reference_forest(X, y, num_classes, num_trees, fte_per_split, max_depth, num_threads, seed, integer_features):
    generators, ni, nf = seeded_pool(seed), len(y), len(X[0])
    chunk = -(-num_trees // num_threads)
    trees, importances = [None] * num_trees, [0.0] * nf
    for t in range(num_threads):
        rng, scratch = generators[t], [0.0] * nf
        for k in range(t * chunk, min((t + 1) * chunk, num_trees)):
            sample = [rng.bounded(ni) for _ in range(ni)]
            trees[k], tree_importances = learn_tree(
                X, y, sample, num_classes, fte_per_split, max_depth, rng, integer_features
            )
            scratch = [a + b for a, b in zip(scratch, tree_importances)]
        importances = [a + b for a, b in zip(importances, scratch)]
    return trees, np.array([v * (1.0 / num_trees) for v in importances])


# Ten instances, four features, three classes (class 2 never seen). Equal
# values of a feature always carry one label, so the unspecified order of
# equal values after sorting cannot matter. Chosen so that each of these
# faults in the learner changes some tree: a non-strict comparison in the
# split sweep, a missing reset of the label-change rule, another division
# of trees among threads, the lower instead of the upper value as integer
# threshold, a leaf size other than 1, the spare class slot left out of
# leaf ties, features drawn with replacement, children allowed with a
# single instance.
INSTANCES = [
    [4, 3, 6, 3],
    [4, 6, 6, 3],
    [5, 1, 3, 0],
    [1, 0, 5, 5],
    [3, 2, 6, 4],
    [6, 1, 3, 0],
    [4, 4, 4, 4],
    [1, 0, 5, 1],
    [0, 0, 0, 1],
    [6, 2, 6, 0],
]
LABELS = [0, 0, 0, 1, 0, 0, 0, 1, 1, 0]


@pytest.mark.parametrize("num_threads", [1, 2])
@pytest.mark.parametrize(
    "dtype, max_depth, seed, num_classes",
    [
        (np.int32, 0, 11, 3),
        (np.float64, 0, 2024, 3),
        (np.uint8, 1, 7, 3),
        (np.float64, 2, 99, 3),
        (np.int32, 0, 31, 2),
    ],
)
def test_forest_matches_independent_recomputation(dtype, max_depth, seed, num_classes, num_threads):
    integer_features = np.issubdtype(dtype, np.integer)
    X = np.array(INSTANCES, dtype=dtype)
    # Half-integer shifts make the float midpoints differ from the values.
    values = X.tolist() if integer_features else (X + 0.5 * (np.arange(len(X))[:, None] % 2)).tolist()
    expected, expected_importances = reference_forest(
        values, LABELS, num_classes, 6, 2, max_depth, num_threads, seed, integer_features
    )
    wrap.set_seed(seed)
    learn = getattr(wrap, f"learn_{np.dtype(dtype).char.lower()}i_gini")
    trees, importances = learn(
        np.array(values, dtype=dtype).T,
        np.array(LABELS, dtype=np.int32),
        num_classes,
        6,
        1.0,
        2,
        max_depth,
        num_threads,
        1,
    )
    assert len(trees) == 6
    for k, (tree, reference) in enumerate(zip(trees, expected)):
        np.testing.assert_array_equal(tree, reference, err_msg=f"tree {k}")
    np.testing.assert_array_equal(importances, expected_importances)
