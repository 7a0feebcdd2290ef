"""What a fitted forest of either task offers beyond prediction: its graph
in ONNX, and the Shapley values of its output. The estimators inherit
these methods; the task (``_TASK``) decides the outputs."""

from sklearn.utils.validation import check_is_fitted


class ExportExplainMixin:
    """``to_onnx`` and ``shap_values`` for a fitted forest estimator."""

    def shap_values(self, X, *, return_expected_value=False):
        """Exact Shapley values of the forest's output for each sample (TreeSHAP).

        Each tree's path-dependent TreeSHAP values, with the in-bag sample
        counts of its nodes as the data's distribution, averaged over the
        trees. The output is a classifier's vote fractions (``predict_proba``)
        or a regressor's prediction. NaN is filled with the training
        medians, as in ``predict``.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Samples, converted by the same rule as in ``fit``.
        return_expected_value : bool, default=False
            Also return the expected value: the output before any feature
            is known.

        Returns
        -------
        values : ndarray of shape (n_samples, n_features, n_classes) or (n_samples, n_features)
            Each feature's contribution to each class's vote fraction (a
            classifier) or to the prediction (a regressor).
        expected_value : ndarray of shape (n_classes,), or float
            Only with ``return_expected_value``. For every sample,
            ``expected_value + values.sum(axis=1)`` is the output.

        Examples
        --------
        >>> values, base = forest.shap_values(X[:5], return_expected_value=True)  # doctest: +SKIP
        >>> np.allclose(base + values.sum(axis=1), forest.predict_proba(X[:5]))  # doctest: +SKIP
        True
        """
        from ._shap import expected_value, shap_values

        _, samples, _, n_threads = self._walk_arguments(X)
        values = shap_values(self, samples, n_threads)
        return (values, expected_value(self)) if return_expected_value else values

    def to_onnx(self, path):
        """Write the fitted forest as an ONNX graph (needs ``velmot[onnx]``).

        The graph's input ``X`` is double, shape (n_samples, n_features); it
        fills NaN with the training medians and sends a value equal to a
        threshold right, as Velmot does. A classifier's graph gives
        ``label`` and ``probabilities`` (float32 vote fractions) as
        ``predict`` and ``predict_proba`` do; a regressor's ``prediction``
        (float32, shape (n_samples, 1)).

        Parameters
        ----------
        path : str or path-like
            The ``.onnx`` file, written through a temporary file and a rename.

        Examples
        --------
        >>> forest.to_onnx("forest.onnx")  # doctest: +SKIP
        >>> session = onnxruntime.InferenceSession("forest.onnx")  # doctest: +SKIP
        >>> labels, proba = session.run(None, {"X": X.astype(np.float64)})  # doctest: +SKIP
        """
        from ._onnx import write_onnx

        check_is_fitted(self)
        write_onnx(self, path)
