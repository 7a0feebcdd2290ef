"""A portable forest file: plain arrays in an ``.npz`` archive, no pickle.

Contents (format 1):

``format``            0-d int, the format number.
``metadata``          0-d str, JSON: estimator parameters, n_features_in, and
                      the names of the entries written with it (files
                      written before the list was added lack it); other
                      writers may add entries of their own.
``classes``           (n_classes,) the sorted class labels.
``nodes``             (5, total_nodes) float64, every tree's columns, tree after tree.
``tree_sizes``        (n_trees,) int64, the number of columns of each tree.
``feature_importances``  (n_features,) float64.
``feature_names``     optional (n_features,) str.
``missing_value_fill``   optional (n_features,) float64, training medians.

Trees are read back into the compiled module, which trusts them completely,
so loading checks every structural property the module relies on and
rejects a damaged file with ValueError.
"""

import json
import struct
import zipfile
import zlib
from numbers import Integral, Real

import numpy as np
from sklearn.utils.validation import check_is_fitted

FORMAT = 1

_REQUIRED = ("format", "metadata", "classes", "nodes", "tree_sizes", "feature_importances")
_LEFT, _RIGHT, _FEATURE, _THRESHOLD, _LABEL = range(5)
_MAX_NODES_PER_TREE = 2**31 - 1


def save_forest(forest, path):
    check_is_fitted(forest)
    arrays = {
        "format": np.array(FORMAT),
        "classes": _without_objects(forest.classes_, "class labels"),
        "nodes": np.concatenate(forest.trees_, axis=1),
        "tree_sizes": np.array([tree.shape[1] for tree in forest.trees_], dtype=np.int64),
        "feature_importances": np.asarray(forest.feature_importances_, dtype=np.float64),
    }
    if hasattr(forest, "feature_names_in_"):
        arrays["feature_names"] = _without_objects(forest.feature_names_in_, "feature names")
    if forest._missing_value_fill_ is not None:
        arrays["missing_value_fill"] = forest._missing_value_fill_
    # The list of entries lets load notice an optional one gone missing: a
    # damaged entry count in the archive's directory drops trailing entries
    # without any error from the zip reader. Written last, the metadata is
    # itself the first entry such damage drops, and it is required.
    metadata = {
        "params": _json_params(forest.get_params()),
        "n_features_in": forest.n_features_in_,
        "entries": sorted([*arrays, "metadata"]),
    }
    arrays["metadata"] = np.array(json.dumps(metadata))
    if hasattr(path, "write"):
        np.savez_compressed(path, **arrays)
    else:
        with open(path, "wb") as file:
            np.savez_compressed(file, **arrays)


def load(path):
    """Read a forest written by ``RandomForestClassifier.save``.

    Parameters
    ----------
    path : str, path-like or binary file object
        The ``.npz`` file.

    Returns
    -------
    forest : RandomForestClassifier
        A fitted estimator that predicts exactly as the saved one did.

    Raises
    ------
    ValueError
        If the file is not a forest file, is truncated, or its trees are
        inconsistent (child indices out of range or shared, labels beyond
        the class count, features beyond the feature count).

    Examples
    --------
    >>> import velmot
    >>> forest = velmot.load("forest.npz")  # doctest: +SKIP
    """
    from ._forest import RandomForestClassifier

    contents = _read_archive(path)
    version = contents["format"]
    _check(version.shape == () and version.dtype.kind in "iu", "format must be one integer")
    _check(int(version) == FORMAT, f"format {int(version)} is not {FORMAT}, the one this version reads")
    metadata = _metadata(contents["metadata"])
    # Entries beyond the list are other writers' (the command line's names).
    listed = metadata.get("entries", [])
    _check(isinstance(listed, list), "metadata lists its entries wrongly")
    missing = sorted(set(map(str, listed)) - set(contents))
    _check(not missing, f"missing {', '.join(missing)}")
    params = metadata["params"]
    n_features = metadata["n_features_in"]
    _check(set(params) == set(RandomForestClassifier._get_param_names()), "unexpected estimator parameters")
    forest = RandomForestClassifier(**params)
    try:
        forest._validate_params()
    except ValueError as error:
        raise ValueError(f"damaged velmot forest file: {error}") from error

    classes = contents["classes"]
    _check(classes.ndim == 1 and len(classes) >= 1, "classes must be a non-empty vector")
    _check(classes.dtype.kind in "biufUS", "classes must be numbers, bools or strings")
    _check(np.array_equal(np.unique(classes), classes), "classes must be sorted and distinct")
    trees = _trees(contents["nodes"], contents["tree_sizes"], n_features, len(classes))
    _check(len(trees) == forest.n_estimators, "the number of trees differs from n_estimators")

    forest.classes_ = classes
    forest.n_classes_ = len(classes)
    forest.n_features_in_ = n_features
    forest.trees_ = trees
    forest.feature_importances_ = _float_vector(contents["feature_importances"], n_features, "feature_importances")
    if "feature_names" in contents:
        names = contents["feature_names"]
        _check(names.ndim == 1 and len(names) == n_features and names.dtype.kind == "U", "bad feature_names")
        forest.feature_names_in_ = names.astype(object)
    forest._missing_value_fill_ = (
        _float_vector(contents["missing_value_fill"], n_features, "missing_value_fill")
        if "missing_value_fill" in contents
        else None
    )
    return forest


def _read_archive(path):
    if hasattr(path, "read"):
        return _read_open_archive(path, getattr(path, "name", "the file object"))
    with open(path, "rb") as file:
        return _read_open_archive(file, path)


def _read_open_archive(file, name):
    try:
        with np.load(file, allow_pickle=False) as archive:
            if not isinstance(archive, np.lib.npyio.NpzFile):
                raise ValueError("not an .npz archive")
            missing = [key for key in _REQUIRED if key not in archive.files]
            if missing:
                raise ValueError(f"missing {', '.join(missing)}")
            return {key: archive[key] for key in archive.files}
    # Everything a damaged archive makes zipfile, zlib or numpy raise; the
    # file itself is open by now, so an OSError here is a damaged file too.
    except (
        ValueError,
        EOFError,
        KeyError,
        OSError,
        RuntimeError,
        NotImplementedError,
        zipfile.BadZipFile,
        zlib.error,
        struct.error,
    ) as error:
        raise ValueError(f"{name!s} is not a readable velmot forest file: {error}") from error


def _check(condition, problem):
    if not condition:
        raise ValueError(f"damaged velmot forest file: {problem}")


def _metadata(array):
    _check(array.shape == () and array.dtype.kind == "U", "metadata must be one string")
    try:
        metadata = json.loads(str(array))
    except json.JSONDecodeError as error:
        raise ValueError(f"damaged velmot forest file: metadata is not JSON ({error})") from error
    _check(isinstance(metadata, dict) and isinstance(metadata.get("params"), dict), "metadata lacks params")
    n_features = metadata.get("n_features_in")
    _check(
        isinstance(n_features, int) and not isinstance(n_features, bool) and n_features >= 1,
        "n_features_in must be a positive int",
    )
    return metadata


def _float_vector(array, length, what):
    _check(array.dtype == np.float64 and array.shape == (length,), f"{what} must be {length} float64 values")
    return array


def _trees(nodes, tree_sizes, n_features, n_classes):
    """Split the node table into trees after checking what the module trusts.

    Every column is a leaf (no children) or a split (two children); a child's
    column lies after its parent's within the same tree and every non-root
    column is the child of exactly one node, so each tree is reachable from
    its root without a cycle. Splits test a known feature; leaves hold a
    class index.
    """
    _check(nodes.dtype == np.float64 and nodes.ndim == 2 and nodes.shape[0] == 5, "nodes must be (5, n) float64")
    _check(tree_sizes.ndim == 1 and tree_sizes.dtype.kind in "iu" and len(tree_sizes) >= 1, "bad tree_sizes")
    _check(bool(np.all(tree_sizes >= 1)) and bool(np.all(tree_sizes <= _MAX_NODES_PER_TREE)), "bad tree size")
    tree_sizes = tree_sizes.astype(np.int64)
    total = nodes.shape[1]
    _check(int(tree_sizes.sum()) == total, "tree sizes do not add up to the node count")

    integral_rows = nodes[[_LEFT, _RIGHT, _FEATURE, _LABEL]]
    _check(bool(np.all(np.isfinite(integral_rows))), "non-finite child, feature or label")
    _check(bool(np.all(integral_rows == np.trunc(integral_rows))), "fractional child, feature or label")

    starts = np.cumsum(tree_sizes) - tree_sizes
    tree_start = np.repeat(starts, tree_sizes)
    tree_end = tree_start + np.repeat(tree_sizes, tree_sizes)
    column = np.arange(total, dtype=np.int64)
    left = nodes[_LEFT].astype(np.int64)
    right = nodes[_RIGHT].astype(np.int64)
    leaf = (left == -1) & (right == -1)
    split = ~leaf
    left_global = left + tree_start
    right_global = right + tree_start
    _check(
        bool(np.all((left[split] >= 0) & (right[split] >= 0))),
        "a node has exactly one child or a negative child index",
    )
    _check(
        bool(np.all((left_global[split] > column[split]) & (left_global[split] < tree_end[split])))
        and bool(np.all((right_global[split] > column[split]) & (right_global[split] < tree_end[split]))),
        "a child index is out of range",
    )
    parents = np.bincount(np.concatenate([left_global[split], right_global[split]]), minlength=total)
    expected = np.ones(total, dtype=np.int64)
    expected[starts] = 0
    _check(bool(np.array_equal(parents, expected)), "a node is reachable twice or not at all")

    _check(not bool(np.any(np.isnan(nodes[_THRESHOLD, split]))), "a split has a NaN threshold")
    feature = nodes[_FEATURE]
    label = nodes[_LABEL]
    _check(bool(np.all((feature[split] >= 0) & (feature[split] < n_features))), "a split feature is out of range")
    _check(bool(np.all((label[leaf] >= 0) & (label[leaf] < n_classes))), "a leaf label is not below the class count")

    return [np.ascontiguousarray(nodes[:, start : start + size]) for start, size in zip(starts, tree_sizes)]


def _json_params(params):
    """Parameters as JSON values; a RandomState instance cannot be stored and
    is written as None."""
    converted = {}
    for key, value in params.items():
        if isinstance(value, (bool, np.bool_)):
            converted[key] = bool(value)
        elif isinstance(value, Integral):
            converted[key] = int(value)
        elif isinstance(value, Real):
            converted[key] = float(value)
        elif value is None or isinstance(value, str):
            converted[key] = value
        else:
            converted[key] = None
    return converted


def _without_objects(values, what):
    """values as an array numpy can store without pickle."""
    if values.dtype.kind != "O":
        return values
    plain = np.array(values.tolist())
    if plain.dtype.kind not in "biufU" or plain.shape != values.shape or not np.array_equal(plain, values):
        raise ValueError(f"{what} of mixed or object types cannot be saved without pickle")
    return plain
