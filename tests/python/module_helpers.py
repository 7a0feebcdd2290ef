"""Names, tree arrays and error capture shared by the tests of the raw module."""

import numpy as np
import pytest

FEATURE_TYPES = {"i": np.int32, "d": np.float64, "s": np.float32, "b": np.uint8}
LABEL_TYPES = {"i": np.int32, "d": np.float64, "s": np.float32}
# In the order of the method table.
LEARNERS = [f"learn_{f}i_{criterion}" for criterion in ("infogain", "gini", "gainratio") for f in "idsb"]
LEARNERS += [f"learn_{f}{label}_variance" for label in "ds" for f in "idsb"]
EMPTY_FOREST = "error: forest is empty: cannot predict\n"


def leaf(label, dtype=np.float64):
    return np.array([[-1], [-1], [-1], [np.nan], [label]], dtype=dtype)


def stump(feature, threshold, left_label=0, right_label=1, children=(1, 2)):
    """A split on `feature` in column 0 over two leaves, normally in columns 1 and 2."""
    return np.array(
        [
            [children[0], -1, -1],
            [children[1], -1, -1],
            [feature, -1, -1],
            [threshold, 0, 0],
            [-2, left_label, right_label],
        ],
        dtype=np.float64,
    )


def runtime_error(call, *args):
    """The text of the RuntimeError that call(*args) must raise."""
    with pytest.raises(RuntimeError) as error:
        call(*args)
    return str(error.value)
