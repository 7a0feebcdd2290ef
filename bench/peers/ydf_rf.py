"""Yggdrasil's ydf random forest: exact splits on numerical features."""

import numpy as np
import ydf

ydf.verbose(0)


def describe():
    return {"version": ydf.__version__, "method": "exact"}


def _columns(X):
    # ydf takes a mapping of column name to 1-D array; rows of the transposed
    # copy are contiguous columns.
    columns = np.ascontiguousarray(X.T)
    return {f"f{j}": columns[j] for j in range(columns.shape[0])}


def fit(X, y, config):
    learner = ydf.RandomForestLearner(
        label="label",
        task=ydf.Task.REGRESSION if config.get("task") == "regression" else ydf.Task.CLASSIFICATION,
        num_trees=config["n_trees"],
        num_candidate_attributes=config["features_per_split"],
        max_depth=-1,  # ydf's default for forests is 16
        min_examples=1,
        bootstrap_training_dataset=True,
        sampling_with_replacement=True,
        bootstrap_size_ratio=1.0,
        compute_oob_performances=False,
        compute_oob_variable_importances=False,
        winner_take_all=True,
        num_threads=config["n_threads"],
        random_seed=config["seed"],
    )
    return learner.train({**_columns(X), "label": y})


def predict(model, X):
    columns = _columns(X)
    try:
        probabilities = model.predict(columns)
    except ValueError as error:
        # ydf's fast engine refuses trees as large as full-depth regression
        # trees grow; its generic engine predicts them.
        if "too many nodes" not in str(error):
            raise
        probabilities = model.predict(columns, use_slow_engine=True)
    if model.task() == ydf.Task.REGRESSION:
        return probabilities
    classes = np.array([int(c) for c in model.label_classes()])
    if probabilities.ndim == 1:  # two classes: the probability of the second
        return classes[(probabilities >= 0.5).astype(int)]
    return classes[np.argmax(probabilities, axis=1)]
