"""Saving and loading fitted estimators as model files (see ``_model_file``).

An estimator class takes part by giving ``_to_model()`` (its arrays and
metadata) and ``_from_model(arrays, metadata)``; the file records the
estimator's task, and loading picks the class from it.
"""

from ._forest import RandomForestClassifier
from ._model_file import check, read_model_file, write_model_file
from ._regressor import RandomForestRegressor

ESTIMATORS = {"classification": RandomForestClassifier, "regression": RandomForestRegressor}

# Files written before the task was recorded hold classifiers.
_DEFAULT_TASK = "classification"


def save_forest(forest, path, extra=None):
    """Write a fitted forest, with ``extra`` (name -> array) as entries of
    the caller's own, through a temporary file and a rename."""
    arrays, metadata = forest._to_model()
    extra = dict(extra or {})
    clashes = sorted(set(extra) & set(arrays) | set(extra) & {"format", "metadata"})
    if clashes:
        raise ValueError(f"extra entries may not be named {', '.join(clashes)}")
    # Extra entries are left out of the metadata's list: they are the
    # caller's to check.
    write_model_file(path, {**arrays, **extra}, metadata)
    return path


def load_forest(path, extra=()):
    """``(forest, {name: array})``: a saved forest and the named extra
    entries, each of which must be present."""
    estimator_names = {name for estimator in ESTIMATORS.values() for name in estimator._model_entries()}
    arrays, metadata = read_model_file(path, sorted(estimator_names | set(extra)))
    task = metadata.get("task", _DEFAULT_TASK)
    check(task in ESTIMATORS, f"unknown task {task!r}")
    for name in extra:
        check(name in arrays, f"missing {name}")
    forest = ESTIMATORS[task]._from_model(arrays, metadata)
    return forest, {name: arrays[name] for name in extra}


def load(path):
    """Read a forest written by ``save``.

    Parameters
    ----------
    path : str, path-like or binary file object
        The ``.npz`` file.

    Returns
    -------
    forest : RandomForestClassifier or RandomForestRegressor
        A fitted estimator of the task the file records, which predicts
        exactly as the saved one did.

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
    return load_forest(path)[0]
