"""scikit-learn's own estimator checks: cloning, parameters, pipelines, fit
state, predict/predict_proba/predict_log_proba consistency, and the feature
names of DataFrames."""

import os

# scikit-learn runs its array-API check only when this is set; numpy input
# must give the same results with array-API dispatch on.
os.environ.setdefault("SCIPY_ARRAY_API", "1")

from sklearn.utils.estimator_checks import check_dataframe_column_names_consistency, parametrize_with_checks

from velmot import RandomForestClassifier, RandomForestRegressor

# Checks that cannot pass, with their reason, in the form scikit-learn's
# check runners expect.
EXPECTED_FAILED_CHECKS = {
    "check_sample_weight_equivalence_on_dense_data": (
        "weights are bootstrap draw probabilities: a weight of 2 equals a duplicated row in expectation, "
        "not draw for draw"
    ),
}


@parametrize_with_checks(
    [RandomForestClassifier(n_estimators=10), RandomForestRegressor(n_estimators=10)],
    expected_failed_checks=lambda estimator: EXPECTED_FAILED_CHECKS,
)
def test_scikit_learn_estimator_checks(estimator, check):
    check(estimator)


def test_dataframe_column_names_are_kept_and_checked():
    # Not among the checks above: fitted names, then warnings and errors for
    # arrays and renamed or reordered columns at every prediction method.
    check_dataframe_column_names_consistency("RandomForestClassifier", RandomForestClassifier(n_estimators=5))
