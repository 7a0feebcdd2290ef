"""Velmot: exact, reproducible random forests with an OpenMP C++ core.

>>> from velmot import RandomForestClassifier
>>> forest = RandomForestClassifier(random_state=0).fit(X, y)  # doctest: +SKIP
>>> forest.save("forest.npz")  # doctest: +SKIP
>>> velmot.load("forest.npz").predict(X)  # doctest: +SKIP
"""

from ._forest import RandomForestClassifier
from ._persistence import load
from ._regressor import RandomForestRegressor

__version__ = "0.1.0"

__all__ = ["RandomForestClassifier", "RandomForestRegressor", "load", "__version__"]
