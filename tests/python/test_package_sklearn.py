"""scikit-learn's own estimator checks, and the estimator inside the tools a
scikit-learn user combines it with."""

import os

# scikit-learn runs its array-API check only when this is set; numpy input
# must give the same results with array-API dispatch on.
os.environ.setdefault("SCIPY_ARRAY_API", "1")

from sklearn.datasets import make_classification
from sklearn.model_selection import GridSearchCV, cross_val_score
from sklearn.pipeline import make_pipeline
from sklearn.preprocessing import StandardScaler
from sklearn.utils.estimator_checks import parametrize_with_checks
from velmot import RandomForestClassifier

# Every check passes; a check that could not would be listed here with its
# reason, the form scikit-learn's check runners expect.
EXPECTED_FAILED_CHECKS = {}


@parametrize_with_checks(
    [RandomForestClassifier(n_estimators=10)], expected_failed_checks=lambda estimator: EXPECTED_FAILED_CHECKS
)
def test_scikit_learn_estimator_checks(estimator, check):
    check(estimator)


def test_in_a_pipeline_cross_validation_and_grid_search():
    X, y = make_classification(n_samples=150, n_features=6, n_informative=4, n_classes=3, random_state=0)
    pipeline = make_pipeline(StandardScaler(), RandomForestClassifier(n_estimators=20, random_state=0))
    assert pipeline.fit(X, y).score(X, y) > 0.9
    scores = cross_val_score(RandomForestClassifier(n_estimators=20, random_state=0), X, y, cv=3)
    assert scores.shape == (3,) and scores.mean() > 0.6
    search = GridSearchCV(
        RandomForestClassifier(n_estimators=10, random_state=0),
        {"criterion": ["gini", "gain_ratio"], "max_depth": [1, None]},
        cv=3,
    ).fit(X, y)
    assert search.best_params_["max_depth"] is None
    assert isinstance(search.best_estimator_, RandomForestClassifier)
