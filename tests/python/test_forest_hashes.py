"""Fixed forests: a digest of every forest that each of the 20 learners grows
under a fixed seed, with 1 and 2 threads, on small fixed data.

Two groups, because they promise different things to anyone who makes the
learner faster:

* DISTINCT: every feature's values are distinct (bootstrap duplicates aside,
  which repeat whole (value, label) pairs). Sorting and partitioning then
  leave nothing to chance, so these forests are fully determined: a changed
  digest here is a bug, whatever the speed work.
* TIED: small-range integers and bytes, rounded floats with imputed NaN, all
  with mixed labels. Within equal values the comparison sort's order is left
  free, and so is the order a partition leaves; both can change a forest
  because the label-change rule of the split sweep looks at the label of the
  first pair after each value boundary. A new sort may change these digests,
  but only where it replaces the comparison sort: the counting sort's order
  (ascending label within equal values) is fixed. A commit that changes one
  says which learners and why.

To print the digests of the current build as Python source:

    PYTHONPATH=<build dir>:python python tests/python/test_forest_hashes.py
"""

import hashlib

import numpy as np
import pytest
import PyVelmot_wrap as wrap

SEED = 20261122
N_INSTANCES = 200  # at most 256, so that byte columns can hold distinct values
N_FEATURES = 6
N_CLASSES = 3
N_TREES = 6
FEATURES_PER_SPLIT = 3
THREAD_COUNTS = (1, 2)

FEATURE_TYPES = {"i": np.int32, "d": np.float64, "s": np.float32, "b": np.uint8}
LABEL_TYPES = {"i": np.int32, "d": np.float64, "s": np.float32}

LEARNERS = [f"learn_{f}i_{criterion}" for criterion in ("infogain", "gini", "gainratio") for f in "dsib"] + [
    f"learn_{f}{label}_variance" for label in "ds" for f in "idsb"
]


def _classes_from(scores, rng):
    """Three classes by tertiles of a noisy score, so trees grow several levels."""
    noisy = scores + rng.normal(scale=0.5 * scores.std(), size=scores.shape)
    return np.digitize(noisy, np.quantile(noisy, [1 / 3, 2 / 3])).astype(np.int64)


def distinct_data(feature_letter):
    """Instance-major matrix whose every column holds distinct values."""
    rng = np.random.default_rng([1, ord(feature_letter)])
    n, f = N_INSTANCES, N_FEATURES
    if feature_letter in "bi":
        # Consecutive values keep the value grid small enough for the
        # counting sort to run on the larger nodes.
        offset = 0 if feature_letter == "b" else -100
        X = np.stack([rng.permutation(n) + offset for _ in range(f)], axis=1).astype(FEATURE_TYPES[feature_letter])
    else:
        X = rng.normal(size=(n, f)).astype(FEATURE_TYPES[feature_letter])
    for column in X.T:
        assert len(np.unique(column)) == n
    scores = X[:, 0].astype(float) - X[:, 1] + 0.5 * X[:, 2]
    return X, _classes_from(scores, rng)


def tied_data(feature_letter):
    """Instance-major matrix with many repeated values and mixed labels."""
    rng = np.random.default_rng([2, ord(feature_letter)])
    n, f = N_INSTANCES, N_FEATURES
    if feature_letter == "b":
        X = rng.integers(0, 8, size=(n, f)).astype(np.uint8)
    elif feature_letter == "i":
        X = rng.integers(-2, 3, size=(n, f)).astype(np.int32)
    else:
        X = np.round(rng.normal(size=(n, f)), 1).astype(FEATURE_TYPES[feature_letter])
        # The library replaces NaN by the column's (upper) median: more ties.
        X[rng.random(n) < 0.15, 1] = np.nan
        X[rng.random(n) < 0.15, 4] = np.nan
    scores = np.nan_to_num(X[:, 0].astype(float)) - X[:, 2] + 0.5 * X[:, 3]
    return X, _classes_from(scores, rng)


DATA = {"distinct": distinct_data, "tied": tied_data}


def labels_for(learner, classes):
    """Labels in the learner's label type. Real labels get fractional parts:
    the variance learners count them under their integer parts, and where
    the counting sort runs it rewrites them onto a grid starting at the
    smallest label, which moves integer parts when that label has a fraction
    (kept as it is, so pinned here too)."""
    label_letter = learner.split("_")[1][1]
    if label_letter == "i":
        return classes.astype(np.int32)
    fractions = np.random.default_rng(3).choice([0.25, 0.5, 0.875], size=classes.shape)
    return (classes + fractions).astype(LABEL_TYPES[label_letter])


def forest_digest(group, learner, n_threads):
    X, classes = DATA[group](learner.split("_")[1][0])
    y = labels_for(learner, classes)
    wrap.set_seed(SEED)
    trees, importances = getattr(wrap, learner)(X.T, y, N_CLASSES, N_TREES, 1.0, FEATURES_PER_SPLIT, 0, n_threads, 0)
    assert importances is None and len(trees) == N_TREES
    digest = hashlib.sha256()
    for tree in trees:
        digest.update(f"{tree.dtype.str}{tree.shape}".encode())
        digest.update(np.ascontiguousarray(tree).tobytes())
    return digest.hexdigest()[:16]


# Recorded from the first complete learner (commit 420fb54), before any speed
# work; since then only TIED digests have changed, twice, each time where a
# comparison sort was replaced: the float and double ones with the stable
# rank sort (76f0a14), then all but two with the value-then-label order that
# every sort now leaves (equal values ascending by label, the counting
# sort's order, which itself is unchanged). See the module doc string before
# changing any entry. Per learner: the digests with 1 and with 2 threads.
EXPECTED = {
    "distinct": {
        "learn_di_infogain": ("28d3ddd4b8615cf1", "93b008efa2aac56e"),
        "learn_si_infogain": ("f37f48eaed321849", "717578c8eb7be16b"),
        "learn_ii_infogain": ("5c067393b090d927", "319e1973cd7c5d1c"),
        "learn_bi_infogain": ("1e20e7eebbeaf653", "ffc6c6e4af15bf50"),
        "learn_di_gini": ("4bd24d906a705da1", "b8342ac0ecbb94b6"),
        "learn_si_gini": ("f174058253de98f2", "86ee470c513fcfb2"),
        "learn_ii_gini": ("c0a140582a830fd6", "983db80d6d322934"),
        "learn_bi_gini": ("86a669b68eb669fa", "96aa0ba6c711ecf7"),
        "learn_di_gainratio": ("0970bb3772ccdc6b", "5532275b5912a03e"),
        "learn_si_gainratio": ("3f8b4660f426876c", "b4e1690aba07cca8"),
        "learn_ii_gainratio": ("b9712e27ee5ffd08", "1f7c33ae4661f831"),
        "learn_bi_gainratio": ("5ab5c52c8b217574", "dfa691f36f8ef241"),
        "learn_id_variance": ("98e13c917b002ef3", "6d311a0b9f4decb3"),
        "learn_dd_variance": ("0970bb3772ccdc6b", "5532275b5912a03e"),
        "learn_sd_variance": ("3f8b4660f426876c", "b4e1690aba07cca8"),
        "learn_bd_variance": ("cb919d2cc84ea68b", "41440cccfc16ea04"),
        "learn_is_variance": ("98e13c917b002ef3", "6d311a0b9f4decb3"),
        "learn_ds_variance": ("0970bb3772ccdc6b", "5532275b5912a03e"),
        "learn_ss_variance": ("3f8b4660f426876c", "b4e1690aba07cca8"),
        "learn_bs_variance": ("cb919d2cc84ea68b", "41440cccfc16ea04"),
    },
    "tied": {
        "learn_di_infogain": ("34f47b6095716644", "d62bff8fd5d7b930"),
        "learn_si_infogain": ("416ddacfc8fffd9a", "32a62fb1ad94273a"),
        "learn_ii_infogain": ("3212182cae11be69", "11dcd7d7c690896d"),
        "learn_bi_infogain": ("1fb95febb8d81376", "478d32b74404e398"),
        "learn_di_gini": ("be17f4469e5c4555", "6b1aa55f7c1d1b4f"),
        "learn_si_gini": ("602472019e3d733b", "1e7aba56b12f6a52"),
        "learn_ii_gini": ("cbbae21d443985a9", "412de117efe7428e"),
        "learn_bi_gini": ("d960374dedb1b061", "ed5ab71b8b83b77b"),
        "learn_di_gainratio": ("a8ee643fadcac4ad", "628da905679abde5"),
        "learn_si_gainratio": ("1a493cd5751baee7", "7411e81e323009db"),
        "learn_ii_gainratio": ("4ada43b657bfe33c", "01bc4f1adcea198d"),
        "learn_bi_gainratio": ("686fe2096ff24e03", "e1feb59ed2549603"),
        "learn_id_variance": ("844edaec5ae1fd0b", "175e8ea4acaf2578"),
        "learn_dd_variance": ("79a85b21caba9a16", "ad2c8cc27faaa0cd"),
        "learn_sd_variance": ("04763d16f7973a97", "e23b06c7aa9b2d70"),
        "learn_bd_variance": ("6e841517f7b1292d", "21502fa68483a19d"),
        "learn_is_variance": ("844edaec5ae1fd0b", "175e8ea4acaf2578"),
        "learn_ds_variance": ("79a85b21caba9a16", "ad2c8cc27faaa0cd"),
        "learn_ss_variance": ("04763d16f7973a97", "e23b06c7aa9b2d70"),
        "learn_bs_variance": ("6e841517f7b1292d", "21502fa68483a19d"),
    },
}


@pytest.mark.parametrize("n_threads", THREAD_COUNTS)
@pytest.mark.parametrize("learner", LEARNERS)
@pytest.mark.parametrize("group", DATA)
def test_forests_match_their_recorded_digests(group, learner, n_threads):
    """A DISTINCT digest never changes; a TIED one only with the comparison sort."""
    assert forest_digest(group, learner, n_threads) == EXPECTED[group][learner][THREAD_COUNTS.index(n_threads)]


def test_the_data_really_splits():
    # Digests of single-leaf forests would pin nothing down.
    for make_data in DATA.values():
        for letter in FEATURE_TYPES:
            X, classes = make_data(letter)
            wrap.set_seed(SEED)
            trees, _ = wrap.learn_di_gini(
                np.ascontiguousarray(X.T, dtype=np.float64), classes.astype(np.int32), N_CLASSES, 2, 1.0, 3, 0, 1, 0
            )
            assert all(tree.shape[1] > 15 for tree in trees), (make_data.__name__, letter)


if __name__ == "__main__":
    print("EXPECTED = {")
    for group in DATA:
        print(f'    "{group}": {{')
        for learner in LEARNERS:
            digests = '", "'.join(forest_digest(group, learner, n_threads) for n_threads in THREAD_COUNTS)
            print(f'        "{learner}": ("{digests}"),')
        print("    },")
    print("}")
