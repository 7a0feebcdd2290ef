#ifndef PYVELMOT_CORE_TRAINING_DATA_H
#define PYVELMOT_CORE_TRAINING_DATA_H

// TrainingData: a training set prepared once (copied, imputed, ranked) for
// any number of learning calls, in whichever of the four feature types its
// matrix holds, with int32 class codes or float64 targets (regression).
// Read-only while learnt from, so calls from several Python threads may
// share one. A caller that prepared a set for one call says so (last use):
// the set is then freed as soon as that call's trees are grown, unless
// calls that began before it still learn from it, and later calls are
// refused.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <mutex>
#include <variant>

#include "velmot/learn/training_set.h"

namespace PyVelmot::core {

namespace py = pybind11;

class TrainingData {
public:
  // features: (n_features, n_samples), any strides; labels: int32 codes in
  // [0, n_classes), or float64 targets with n_classes 0. Preparation runs
  // with the GIL released on n_threads. With in_place, a C-contiguous
  // matrix without NaN is read in place, not copied, and kept alive as long
  // as the TrainingData: the caller must not change it meanwhile.
  TrainingData(const py::array& features, const py::array& labels, int64_t num_classes, int num_threads, bool in_place);

  size_t num_features() const { return num_features_; }
  size_t num_samples() const { return num_samples_; }
  size_t num_classes() const { return num_classes_; }
  bool is_regression() const { return set_.index() >= 4; }

  // Counts a learning call, refusing it (ValueError) on a set released by
  // a last use; with last_use, this call is the last one allowed.
  void begin_learning(bool last_use);
  void end_learning();
  // Frees the ranks and the copied features if no other call learns from
  // the set: for a last use, once its trees are grown (without the GIL).
  void release_if_alone();

  template <class Body>
  decltype(auto) visit(Body&& body) const {
    return std::visit([&](const auto& set) -> decltype(auto) { return body(*set); }, set_);
  }

private:
  template <class L>
  void prepare(const py::array& features, const L* labels, int num_threads, bool in_place);

  // Class codes first, then real targets.
  std::variant<std::shared_ptr<Velmot::TrainingSet<int>>, std::shared_ptr<Velmot::TrainingSet<double>>,
               std::shared_ptr<Velmot::TrainingSet<float>>, std::shared_ptr<Velmot::TrainingSet<unsigned char>>,
               std::shared_ptr<Velmot::TrainingSet<int, double>>, std::shared_ptr<Velmot::TrainingSet<double, double>>,
               std::shared_ptr<Velmot::TrainingSet<float, double>>,
               std::shared_ptr<Velmot::TrainingSet<unsigned char, double>>>
      set_;
  std::mutex learning_mutex_;
  int learning_calls_ = 0;
  bool last_use_begun_ = false;
  // The caller's matrix, where the set reads it in place (else None).
  py::object viewed_features_;
  size_t num_features_ = 0;
  size_t num_samples_ = 0;
  size_t num_classes_ = 0;
};

// A learning call on a TrainingData, counted for as long as it lives.
class LearningCall {
public:
  LearningCall(TrainingData& data, bool last_use) : data_(data) { data_.begin_learning(last_use); }
  ~LearningCall() { data_.end_learning(); }
  LearningCall(const LearningCall&) = delete;
  LearningCall& operator=(const LearningCall&) = delete;

private:
  TrainingData& data_;
};

}  // namespace PyVelmot::core

#endif
