"""Raw extension module of Velmot: random forests over numpy arrays.

Every function takes positional arguments only. Instance matrices are
feature-major: ``X_[f, i]`` is feature ``f`` of instance ``i`` (pass
``X.T`` for an instance-major ``X``; any strides are honoured). The letters
after ``learn_``, ``test_`` and ``prob_`` name element types:
``i`` int32, ``d`` float64, ``s`` float32, ``b`` uint8.

A forest is a list of float64 arrays of shape (5, n), one per tree, one
column per node in breadth-first order, rows: left child, right child (-1
for none), feature index, threshold, label; or a ``str``/``bytes`` of tree
text such as ``"(threshold 0.5 findex 3 label 0 left (label 0) right
(label 1))"``. Failures raise ``RuntimeError``; a failed allocation raises
one that is also a ``MemoryError``. In a process forked after calls ran on
several threads, a call runs its threads' shares one after another (same
results: the OpenMP thread pool does not survive fork).

Learning (``learn_<features><labels>_<criterion>``) returns ``(trees,
importances)``, importances being ``None`` unless requested. The
``*_variance`` learners take real labels but grow gain-ratio trees over
their integer parts. ``fte_per_split`` below 1 or at least the number of
features means every feature at every node; in that mode a node on which
some feature is constant is searched forever, so callers pass
``1 <= fte_per_split < num_features``. A read-only matrix with an attribute
``_velmot_prepared`` (an ndarray subclass) keeps each call's copy, imputation
and ranks of its features there for the next call on the same memory,
shape and strides; its values must not change meanwhile.

``test_<features>i`` writes the majority class of each instance into
``labels_out_`` (int32); ``prob_<features><output>`` writes the fraction of
trees voting each class into ``probs_out_`` (instances x classes). Both
return a float that carries no meaning.
"""

from typing import Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

Forest = Union[str, bytes, Sequence[npt.NDArray[np.floating]]]

def learn_ii_infogain(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_di_infogain(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_si_infogain(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_bi_infogain(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_ii_gini(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_di_gini(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_si_gini(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_bi_gini(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_ii_gainratio(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_di_gainratio(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_si_gainratio(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_bi_gainratio(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_id_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_dd_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_sd_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_bd_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_is_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_ds_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_ss_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def learn_bs_variance(
    X_: np.ndarray,
    Y_: np.ndarray,
    num_classes: int,
    num_trees: int,
    sampling_prop: float,
    fte_per_split: int,
    max_depth: int,
    num_threads: int,
    compute_feature_importances: int,
    /,
) -> tuple[list[npt.NDArray[np.float64]], Optional[npt.NDArray[np.float64]]]: ...

def test_ii(
    X_: np.ndarray, forest_: Forest, num_classes: int, labels_out_: np.ndarray, num_threads: int, /
) -> float: ...

def test_di(
    X_: np.ndarray, forest_: Forest, num_classes: int, labels_out_: np.ndarray, num_threads: int, /
) -> float: ...

def test_si(
    X_: np.ndarray, forest_: Forest, num_classes: int, labels_out_: np.ndarray, num_threads: int, /
) -> float: ...

def test_bi(
    X_: np.ndarray, forest_: Forest, num_classes: int, labels_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_dd(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_ds(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_sd(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_ss(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_id(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_is(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_bd(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def prob_bs(
    X_: np.ndarray, forest_: Forest, num_classes: int, probs_out_: np.ndarray, num_threads: int, /
) -> float: ...

def init_pool(s: Union[str, bytes], /) -> float:
    """Re-seeds the 32 generators from a file of random bytes ("" is /dev/urandom)."""

def set_seed(seed: int, /) -> float:
    """Re-seeds the 32 generators from the low 32 bits of seed (0: from /dev/urandom)."""
