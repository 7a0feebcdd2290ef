"""LightGBM's random-forest mode. Approximate: splits over at most 256 bins
per feature, rows sampled without replacement (63.2%, the share of distinct
rows in a bootstrap sample) instead of a bootstrap, and for more than two
classes one tree per class in each round."""

import lightgbm


def describe():
    return {"version": lightgbm.__version__, "method": "histogram, 256 bins; 63.2% subsample"}


def fit(X, y, config):
    regression = config.get("task") == "regression"
    forest = (lightgbm.LGBMRegressor if regression else lightgbm.LGBMClassifier)(
        boosting_type="rf",
        n_estimators=config["n_trees"],
        # Full depth: a tree cannot have more leaves than sampled rows, and
        # the row and weight limits below are as low as they go. (A bound far
        # above that only costs time: LightGBM sizes its work by it.)
        num_leaves=min(131072, config["n_train"]),
        histogram_pool_size=1024,  # MiB; unbounded, it caches one histogram per leaf
        max_depth=-1,
        min_child_samples=1,
        min_child_weight=0.0,
        min_split_gain=0.0,
        reg_lambda=0.0,
        subsample=0.632,
        subsample_freq=1,
        colsample_bytree=1.0,
        feature_fraction_bynode=config["features_per_split"] / config["n_features"],
        max_bin=256,
        n_jobs=config["n_threads"],
        random_state=config["seed"],
        verbose=-1,
    )
    return forest.fit(X, y)


def predict(forest, X):
    return forest.predict(X)
