#ifndef PYVELMOT_METHOD_LIST_H
#define PYVELMOT_METHOD_LIST_H

// The typed functions of the module, in the order of its method table. The
// letters after the prefix select the instantiation:
//   i int32 -> int, d float64 -> double, s float32 -> float, b uint8 -> unsigned char
//   learn_<features><labels>_<criterion>, test_<features>i, prob_<features><output>
// The *_variance learners take real labels but grow gain-ratio trees over
// the labels' integer parts, exactly as classification does (kept on
// purpose, names included).
//
// Each list calls X(name suffix, types...) once per function; the method
// table and the explicit instantiations are both generated from it.

#include "velmot/stats/criteria.h"

#define PYVELMOT_LEARNERS(X)                                       \
  X(ii_infogain, int, int, Velmot::TwoSplitInfoGain)               \
  X(di_infogain, double, int, Velmot::TwoSplitInfoGain)            \
  X(si_infogain, float, int, Velmot::TwoSplitInfoGain)             \
  X(bi_infogain, unsigned char, int, Velmot::TwoSplitInfoGain)     \
  X(ii_gini, int, int, Velmot::TwoSplitGiniImpurity)               \
  X(di_gini, double, int, Velmot::TwoSplitGiniImpurity)            \
  X(si_gini, float, int, Velmot::TwoSplitGiniImpurity)             \
  X(bi_gini, unsigned char, int, Velmot::TwoSplitGiniImpurity)     \
  X(ii_gainratio, int, int, Velmot::TwoSplitGainRatio)             \
  X(di_gainratio, double, int, Velmot::TwoSplitGainRatio)          \
  X(si_gainratio, float, int, Velmot::TwoSplitGainRatio)           \
  X(bi_gainratio, unsigned char, int, Velmot::TwoSplitGainRatio)   \
  X(id_variance, int, double, Velmot::TwoSplitGainRatio)           \
  X(dd_variance, double, double, Velmot::TwoSplitGainRatio)        \
  X(sd_variance, float, double, Velmot::TwoSplitGainRatio)         \
  X(bd_variance, unsigned char, double, Velmot::TwoSplitGainRatio) \
  X(is_variance, int, float, Velmot::TwoSplitGainRatio)            \
  X(ds_variance, double, float, Velmot::TwoSplitGainRatio)         \
  X(ss_variance, float, float, Velmot::TwoSplitGainRatio)          \
  X(bs_variance, unsigned char, float, Velmot::TwoSplitGainRatio)

#define PYVELMOT_TESTERS(X) \
  X(ii, int, int)           \
  X(di, double, int)        \
  X(si, float, int)         \
  X(bi, unsigned char, int)

#define PYVELMOT_PROBABILITY_FUNCTIONS(X) \
  X(dd, double, int, double)              \
  X(ds, double, int, float)               \
  X(sd, float, int, double)               \
  X(ss, float, int, float)                \
  X(id, int, int, double)                 \
  X(is, int, int, float)                  \
  X(bd, unsigned char, int, double)       \
  X(bs, unsigned char, int, float)

#endif
