#ifndef PYVELMOT_ENTRY_POINTS_H
#define PYVELMOT_ENTRY_POINTS_H

// The functions of the method table, each taking one positional tuple.
// The typed entry points are templates, instantiated once per function of
// method_list.h (learn_entry.cpp, predict_entry.cpp).

#include "numpy_api.h"

namespace PyVelmot {

PyObject* init_pool_wrap(PyObject* self, PyObject* args);
PyObject* set_seed_wrap(PyObject* self, PyObject* args);

// (X_, Y_, num_classes, num_trees, sampling_prop, fte_per_split, max_depth,
//  num_threads, compute_feature_importances) -> (list of tree arrays,
//  importance array or None). X_ is feature-major: features x instances.
template <class F, class L, class Criterion>
PyObject* learn_wrap(PyObject* self, PyObject* args);

// (X_, forest_, num_classes, labels_out_, num_threads) -> a float that means
// nothing; the predicted class of instance i goes to labels_out_[i].
template <class F, class L>
PyObject* test_wrap(PyObject* self, PyObject* args);

// (X_, forest_, num_classes, probs_out_, num_threads) -> a float that means
// nothing; probs_out_[i, c] gets the fraction of trees voting c for instance i.
template <class F, class L, class T>
PyObject* prob_wrap(PyObject* self, PyObject* args);

}  // namespace PyVelmot

#endif
