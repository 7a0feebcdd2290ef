#ifndef VELMOT_DEFS_LABELING_H
#define VELMOT_DEFS_LABELING_H

namespace Velmot {

// What the labels of a data set mean. The Python module always uses
// DiscreteZeroOnward, also for real-valued labels (counted by integer part).
enum LabelingType {
  PlusOneMinusOne = 0,
  DiscreteZeroOnward = 1,
  Regression = 2,
};

}  // namespace Velmot

#endif
