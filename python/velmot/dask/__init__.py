"""Learning and predicting with velmot forests on a Dask cluster.

A forest is parallel over its trees, so the unit of distributed work is a
block of trees: one learning call of the compiled module, seeded by the
estimator. Two ways of feeding the blocks:

- Scattered (the default): the training set is validated and encoded on the
  client, scattered once to every worker, and each task learns one block
  from the whole of it. The blocks are exactly the local estimator's chunks,
  so the forest equals ``velmot.RandomForestClassifier``'s under the same
  ``random_state`` and ``n_jobs``, whatever the cluster.
- Partition-wise: each task learns its share of the trees from one
  partition of a Dask array or DataFrame, on the worker that holds it, so no
  worker ever holds the whole data set.

Block sizes and seeds depend only on ``random_state``, ``n_estimators``,
``n_jobs`` (and, partition-wise, on the partitions' row counts), never on the
number of workers or the order in which blocks finish: a lost worker's blocks
are learnt again by Dask and come out the same.
"""

from ._estimator import RandomForestClassifier

__all__ = ["RandomForestClassifier"]
