"""scikit-learn's RandomForestClassifier: exact splits, Gini, bootstrap."""

import sklearn
from sklearn.ensemble import RandomForestClassifier


def describe():
    return {"version": sklearn.__version__, "method": "exact"}


def fit(X, y, config):
    forest = RandomForestClassifier(
        n_estimators=config["n_trees"],
        criterion="gini",
        max_features=config["features_per_split"],
        max_depth=None,
        min_samples_split=2,
        min_samples_leaf=1,
        bootstrap=True,
        n_jobs=config["n_threads"],
        random_state=config["seed"],
    )
    return forest.fit(X, y)


def predict(forest, X):
    return forest.predict(X)
