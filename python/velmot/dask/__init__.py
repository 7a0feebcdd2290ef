"""Learning and predicting with velmot forests on a Dask cluster.

A forest is parallel over its trees, so the unit of distributed work is a
block of tree indices [first, last), learnt by one call of the package's
core. Tree k is grown from (seed, k) alone, so the forest does not depend
on how the trees are split into blocks. Two ways of feeding the blocks:

- Scattered (the default): the training set is validated and encoded on the
  client, scattered once to every worker, and each task learns one block
  from the whole of it. The forest equals the local estimator's
  under the same ``random_state``, whatever the cluster, ``n_jobs`` or
  ``trees_per_block``.
- Partition-wise: each task learns its share of the trees from one
  partition of a Dask array or DataFrame, on the worker that holds it, so no
  worker ever holds the whole data set.

Blocks depend only on ``n_estimators``, ``trees_per_block`` (and,
partition-wise, on the partitions), never on the number of workers or the
order in which blocks finish: a lost worker's blocks are learnt again by
Dask and come out the same.
"""

from ._estimator import RandomForestClassifier, RandomForestRegressor

__all__ = ["RandomForestClassifier", "RandomForestRegressor"]
