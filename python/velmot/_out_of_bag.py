"""Out-of-bag estimates from the votes the core tallies while it learns."""

import warnings

import numpy as np
from sklearn.metrics import accuracy_score, r2_score


def out_of_bag_estimates(votes, codes, classes, oob_score):
    """(oob_decision_function_, oob_score_) of a classifier from its
    out-of-bag votes (n_samples x n_classes) and the training labels' codes.

    A sample in bag for every tree has no vote: its row is NaN, with a
    warning, and the score is taken over the other samples (NaN if none
    has a vote). ``oob_score`` is True (accuracy) or a callable
    score(y_true, y_pred) over the labels themselves.
    """
    totals = votes.sum(axis=1, keepdims=True)
    voted = _warn_unless_all_voted(totals[:, 0])
    with np.errstate(invalid="ignore", divide="ignore"):
        fractions = votes / totals
    if not voted.any():
        return fractions, float("nan")
    # Ties go to the first class, as in predict.
    y_pred = classes[np.argmax(fractions[voted], axis=1)]
    y_true = classes[codes[voted]]
    score = oob_score(y_true, y_pred) if callable(oob_score) else accuracy_score(y_true, y_pred)
    return fractions, score


def out_of_bag_predictions(counts, sums, y, oob_score):
    """(oob_prediction_, oob_score_) of a regressor from each sample's
    number of out-of-bag trees and the sum of their predictions (added in
    tree order). NaN, and the score, as for a classifier; the default score
    is R^2."""
    voted = _warn_unless_all_voted(counts)
    with np.errstate(invalid="ignore", divide="ignore"):
        predictions = sums / counts
    if not voted.any():
        return predictions, float("nan")
    score = (oob_score if callable(oob_score) else r2_score)(y[voted], predictions[voted])
    return predictions, score


def _warn_unless_all_voted(counts):
    """Whether each sample has an out-of-bag tree; a warning if one has none."""
    voted = counts > 0
    if not voted.all():
        warnings.warn(
            f"{np.count_nonzero(~voted)} samples were in the bootstrap sample of every tree and have no out-of-bag "
            "estimate (NaN); use more trees for a reliable out-of-bag score.",
            UserWarning,
            stacklevel=4,
        )
    return voted
