"""scikit-learn-intelex's random forest. Its splits are searched over at
most 256 bins per feature (there is no exact mode), so it is reported as
approximate; on byte data the bins hold single values."""

from importlib import metadata

from sklearnex.ensemble import RandomForestClassifier, RandomForestRegressor


def describe():
    return {"version": metadata.version("scikit-learn-intelex"), "method": "histogram, 256 bins"}


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
        max_bins=256,
        n_jobs=config["n_threads"],
        random_state=config["seed"],
    )
    return forest.fit(X, y)


def predict(forest, X):
    return forest.predict(X)
