"""Fixed forests: a digest of every forest that each of the 20 learners grows
under a fixed seed, with 1 and 2 threads, on small fixed data of two kinds:

* DISTINCT: every feature's values are distinct (bootstrap duplicates aside),
  so sorting and partitioning leave nothing to chance.
* TIED: small-range integers and bytes, rounded floats with imputed NaN, all
  with mixed labels: equal values come out ascending by label, and the
  label-change rule of the split sweep depends on that order.

The digests are what the module promises its callers: speed work may change
how a forest is found, never which forest. A learner whose forests must be
another's (single-precision labels count as double ones; where no values tie,
a real label's fraction never reorders pairs, so the variance learners grow
the gain ratio's forests) is checked against that learner's digests.
"""

import hashlib

import numpy as np
import pytest

import PyVelmot_wrap as wrap
from module_helpers import FEATURE_TYPES, LABEL_TYPES, LEARNERS

SEED = 20261122
N, N_FEATURES, N_CLASSES = 200, 6, 3  # N at most 256: byte columns hold distinct values


def _classes_from(scores, rng):
    """Three classes by tertiles of a noisy score, so trees grow several levels."""
    noisy = scores + rng.normal(scale=0.5 * scores.std(), size=scores.shape)
    return np.digitize(noisy, np.quantile(noisy, [1 / 3, 2 / 3])).astype(np.int64)


def distinct_data(letter):
    rng = np.random.default_rng([1, ord(letter)])
    if letter in "bi":  # consecutive values: a grid small enough to count
        X = np.stack([rng.permutation(N) + (0 if letter == "b" else -100) for _ in range(N_FEATURES)], axis=1)
    else:
        X = rng.normal(size=(N, N_FEATURES))
    X = X.astype(FEATURE_TYPES[letter])
    return X, _classes_from(X[:, 0].astype(float) - X[:, 1] + 0.5 * X[:, 2], rng)


def tied_data(letter):
    rng = np.random.default_rng([2, ord(letter)])
    if letter == "b":
        X = rng.integers(0, 8, size=(N, N_FEATURES)).astype(np.uint8)
    elif letter == "i":
        X = rng.integers(-2, 3, size=(N, N_FEATURES)).astype(np.int32)
    else:
        X = np.round(rng.normal(size=(N, N_FEATURES)), 1).astype(FEATURE_TYPES[letter])
        X[rng.random(N) < 0.15, 1] = np.nan  # imputed by the upper median: more ties
        X[rng.random(N) < 0.15, 4] = np.nan
    return X, _classes_from(np.nan_to_num(X[:, 0].astype(float)) - X[:, 2] + 0.5 * X[:, 3], rng)


DATA = {"distinct": distinct_data, "tied": tied_data}


def labels_for(learner, classes):
    """Labels in the learner's type; real ones with fractional parts, which
    the variance learners count under their integer parts (and the counting
    sort rewrites onto a grid from the smallest label)."""
    fractions = np.random.default_rng(3).choice([0.25, 0.5, 0.875], size=classes.shape)
    return classes.astype(np.int32) if learner[7] == "i" else (classes + fractions).astype(LABEL_TYPES[learner[7]])


def forest_digest(group, learner, n_threads):
    X, classes = DATA[group](learner[6])
    wrap.set_seed(SEED)
    y = labels_for(learner, classes)
    trees, importances = getattr(wrap, learner)(X.T, y, N_CLASSES, 6, 1.0, 3, 0, n_threads, 0)
    assert importances is None and len(trees) == 6
    assert sum(tree.shape[1] for tree in trees) > 60  # single leaves would pin nothing down
    parts = (f"{tree.dtype.str}{tree.shape}".encode() + np.ascontiguousarray(tree).tobytes() for tree in trees)
    return hashlib.sha256(b"".join(parts)).hexdigest()[:16]


def recorded_as(group, learner):
    """The learner whose digests this learner's forests must have."""
    learner = learner.replace("s_variance", "d_variance")
    if group == "distinct" and learner in ("learn_dd_variance", "learn_sd_variance"):
        return f"learn_{learner[6]}i_gainratio"
    return learner


# Per learner: the digests with 1 and with 2 threads.
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
        "learn_bd_variance": ("cb919d2cc84ea68b", "41440cccfc16ea04"),
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
    },
}


@pytest.mark.parametrize("learner", LEARNERS)
@pytest.mark.parametrize("group", DATA)
def test_forests_match_their_recorded_digests(group, learner):
    assert tuple(forest_digest(group, learner, n) for n in (1, 2)) == EXPECTED[group][recorded_as(group, learner)]
