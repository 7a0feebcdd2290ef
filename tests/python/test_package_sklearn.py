"""scikit-learn's own estimator checks, and the estimator inside the tools a
scikit-learn user combines it with."""

import os

# scikit-learn runs its array-API check only when this is set; numpy input
# must give the same results with array-API dispatch on.
os.environ.setdefault("SCIPY_ARRAY_API", "1")

import numpy as np
from sklearn.datasets import make_classification
from sklearn.model_selection import GridSearchCV, cross_val_score
from sklearn.pipeline import make_pipeline
from sklearn.preprocessing import StandardScaler
from sklearn.utils.estimator_checks import check_estimator, parametrize_with_checks
from velmot import RandomForestClassifier

# Every check passes; a check that could not would be listed here with its
# reason, the form scikit-learn's check runners expect.
EXPECTED_FAILED_CHECKS = {}


@parametrize_with_checks(
    [RandomForestClassifier(n_estimators=10)], expected_failed_checks=lambda estimator: EXPECTED_FAILED_CHECKS
)
def test_scikit_learn_estimator_checks(estimator, check):
    check(estimator)


def classification_data():
    return make_classification(n_samples=150, n_features=6, n_informative=4, n_classes=3, random_state=0)


def test_in_a_pipeline():
    X, y = classification_data()
    pipeline = make_pipeline(StandardScaler(), RandomForestClassifier(n_estimators=20, random_state=0))
    assert pipeline.fit(X, y).score(X, y) > 0.9


def test_in_cross_validation():
    X, y = classification_data()
    scores = cross_val_score(RandomForestClassifier(n_estimators=20, random_state=0), X, y, cv=3)
    assert scores.shape == (3,) and scores.mean() > 0.6


def test_in_grid_search():
    X, y = classification_data()
    search = GridSearchCV(
        RandomForestClassifier(n_estimators=10, random_state=0),
        {"criterion": ["gini", "gain_ratio"], "max_depth": [1, None]},
        cv=3,
    ).fit(X, y)
    assert search.best_params_["max_depth"] is None
    assert isinstance(search.best_estimator_, RandomForestClassifier)
    assert np.isin(search.predict(X), [0, 1, 2]).all()


def test_check_estimator_passes_as_a_whole():
    results = check_estimator(
        RandomForestClassifier(n_estimators=10), expected_failed_checks=EXPECTED_FAILED_CHECKS, on_skip=None
    )
    assert results and all(result["status"] == "passed" for result in results)
