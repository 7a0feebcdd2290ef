"""Velmot: exact, reproducible random forests with an OpenMP C++ core.

>>> from velmot import RandomForestClassifier
>>> forest = RandomForestClassifier(random_state=0).fit(X, y)  # doctest: +SKIP
>>> forest.save("forest.npz")  # doctest: +SKIP
>>> velmot.load("forest.npz").predict(X)  # doctest: +SKIP
"""

import importlib

__version__ = "0.1.0"

__all__ = ["RandomForestClassifier", "RandomForestRegressor", "load", "__version__"]

# The estimators import scikit-learn, a second and 100 MiB that the command
# line's training does without: they load on first use of these names.
_LAZY = {"RandomForestClassifier": "._forest", "RandomForestRegressor": "._regressor", "load": "._persistence"}


def __getattr__(name):
    if name not in _LAZY:
        raise AttributeError(f"module 'velmot' has no attribute {name!r}")
    value = getattr(importlib.import_module(_LAZY[name], __name__), name)
    globals()[name] = value
    return value


def __dir__():
    return sorted([*globals(), *_LAZY])
