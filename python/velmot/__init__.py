"""Velmot: exact, reproducible random forests with an OpenMP C++ core."""

__version__ = "0.1.0"
