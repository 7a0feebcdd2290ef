"""scikit-learn's random forests: exact splits, Gini or squared error,
bootstrap."""

import sklearn
from sklearn.ensemble import RandomForestClassifier, RandomForestRegressor


def describe():
    return {"version": sklearn.__version__, "method": "exact"}


def fit(X, y, config):
    regression = config.get("task") == "regression"
    forest = (RandomForestRegressor if regression else RandomForestClassifier)(
        n_estimators=config["n_trees"],
        criterion="squared_error" if regression else "gini",
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


def mean_path_length(forest, X, sampled_trees=10):
    """Splits on each instance's way to its leaf, averaged over the instances
    and the first sampled_trees trees."""
    visited = [tree.decision_path(X).sum(axis=1) - 1 for tree in forest.estimators_[:sampled_trees]]
    return float(sum(v.mean() for v in visited) / len(visited))
