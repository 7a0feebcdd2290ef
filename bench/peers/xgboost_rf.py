"""XGBoost's random-forest mode. Approximate: histogram splits over at most
256 bins per feature, rows sampled without replacement (63.2%, the share of
distinct rows in a bootstrap sample), and for more than two classes one tree
per class."""

import xgboost


def describe():
    return {"version": xgboost.__version__, "method": "histogram, 256 bins; 63.2% subsample"}


def fit(X, y, config):
    regression = config.get("task") == "regression"
    forest = (xgboost.XGBRFRegressor if regression else xgboost.XGBRFClassifier)(
        n_estimators=config["n_trees"],
        tree_method="hist",
        grow_policy="lossguide",
        max_depth=0,  # no depth limit (lossguide growth)
        max_leaves=0,
        min_child_weight=0.0,
        subsample=0.632,
        colsample_bynode=config["features_per_split"] / config["n_features"],
        max_bin=256,
        n_jobs=config["n_threads"],
        random_state=config["seed"],
    )
    return forest.fit(X, y)


def predict(forest, X):
    return forest.predict(X)
