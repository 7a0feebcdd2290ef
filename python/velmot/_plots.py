"""Pictures of a fitted forest for the command line (matplotlib, the
``velmot[plot]`` extra)."""

import os

import numpy as np

from ._files import atomic_write

# Features beyond this many, by importance, are left out of the chart.
MOST_IMPORTANT = 30


def plot_importances(path, importances, names):
    """Writes a bar chart of the features' importances, largest first, in
    the format the path's extension names (.png, .svg, .pdf, ...)."""
    try:
        from matplotlib.figure import Figure
    except ImportError:
        raise ImportError("plotting needs matplotlib: pip install 'velmot[plot]'") from None
    figure = Figure(layout="constrained")
    suffix = os.path.splitext(path)[1][1:].lower()
    if suffix not in figure.canvas.get_supported_filetypes():
        formats = ", ".join(sorted(figure.canvas.get_supported_filetypes()))
        raise ValueError(f"{path}: the extension must name a picture format ({formats})")
    order = sorted(range(len(importances)), key=lambda j: (-importances[j], j))[:MOST_IMPORTANT]
    figure.set_size_inches(7, 1.2 + 0.3 * len(order))
    axes = figure.subplots()
    positions = np.arange(len(order))[::-1]
    axes.barh(positions, [importances[j] for j in order], color="#3b75af")
    axes.set_yticks(positions, [names[j] for j in order])
    axes.set_xlabel("mean impurity decrease")
    shown = f"the {len(order)} most important of {len(importances)}" if len(order) < len(importances) else "all"
    axes.set_title(f"Feature importances ({shown} features)")
    atomic_write(path, lambda temp: figure.savefig(temp, format=suffix))
