"""Velmot through its Python package, as a user would call it."""

import velmot


def describe():
    return {"version": velmot.__version__, "method": "exact"}


def fit(X, y, config):
    forest = velmot.RandomForestClassifier(
        n_estimators=config["n_trees"],
        criterion="gini",
        max_features=config["features_per_split"],
        max_depth=None,
        max_samples=None,  # a bootstrap sample as large as the training set
        n_jobs=config["n_threads"],
        random_state=config["seed"],
    )
    return forest.fit(X, y)


def predict(forest, X):
    return forest.predict(X)
