#include "training_data.h"

#include <cstdint>
#include <string>

#include "array_checks.h"
#include "released_run.h"
#include "velmot/dataset/native_array_dataset.h"

namespace PyVelmot::core {

TrainingData::TrainingData(const py::array& features, const py::array& labels, int64_t num_classes, int num_threads,
                           bool in_place) {
  require_ndim(features, "X", 2);
  const bool targets = num_classes == 0;
  if (labels.shape(0) != features.shape(1)) {
    throw py::value_error("y has " + std::to_string(labels.shape(0)) + " labels for " +
                          std::to_string(features.shape(1)) + " samples (X is n_features x n_samples)");
  }
  if (num_classes < 0 || num_classes > 2147483645) {
    throw py::value_error("n_classes must be in [1, 2147483645], or 0 for real targets");
  }
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  num_features_ = static_cast<size_t>(features.shape(0));
  num_samples_ = static_cast<size_t>(features.shape(1));
  num_classes_ = static_cast<size_t>(num_classes);
  if (targets) {
    prepare(features, vector_of<double>(labels, "y"), num_threads, in_place);
  } else {
    prepare(features, vector_of<int32_t>(labels, "y"), num_threads, in_place);
  }
}

void TrainingData::begin_learning(bool last_use) {
  const std::lock_guard<std::mutex> lock(learning_mutex_);
  if (last_use_begun_) {
    throw py::value_error(
        "this TrainingData was released by a call that learnt from it for the last time; prepare it "
        "again");
  }
  last_use_begun_ = last_use;
  ++learning_calls_;
}

void TrainingData::end_learning() {
  const std::lock_guard<std::mutex> lock(learning_mutex_);
  --learning_calls_;
}

void TrainingData::release_if_alone() {
  const std::lock_guard<std::mutex> lock(learning_mutex_);
  if (learning_calls_ != 1) return;
  std::visit(
      [](auto& set) {
        set->ranks = {};
        set->order = {};
        set->data = {};
      },
      set_);
}

template <class L>
void TrainingData::prepare(const py::array& features, const L* labels, int num_threads, bool in_place) {
  with_feature_type(features, "X", [&](auto type) {
    typedef decltype(type) F;
    auto set = std::make_shared<Velmot::TrainingSet<F, L>>();
    const Velmot::DisNativeArrayDataSet<F, L> native(
        static_cast<const unsigned char*>(features.data()), labels, num_samples_, num_features_, num_classes_,
        static_cast<size_t>(features.strides(1)), static_cast<size_t>(features.strides(0)), sizeof(L));
    Velmot::LearningProgress no_progress;
    // Small sets are prepared on one thread: a team's start and closing
    // barrier would cost more than the work, and far more where another
    // process holds a core and a team thread waits for a time slice.
    constexpr size_t one_thread_cells = size_t(1) << 18;
    const int threads = num_samples_ * num_features_ < one_thread_cells ? 1 : num_threads;
    // A C-contiguous (n_features, n_samples) matrix is the library's own
    // layout: read in place unless it holds NaN to impute.
    const bool readable = in_place && (features.flags() & py::array::c_style) != 0 &&
                          reinterpret_cast<uintptr_t>(features.data()) % alignof(F) == 0;
    bool viewed = false;
    run_released(
        [&]() {
          omp_set_num_threads(threads);
          const F* columns = static_cast<const F*>(features.data());
          viewed = readable && Velmot::can_learn_in_place(columns, num_samples_ * num_features_);
          if (viewed) {
            Velmot::prepare_training_set_in_place(*set, native, columns);
          } else {
            Velmot::prepare_training_set(*set, native);
          }
        },
        no_progress, py::none());
    if (viewed) viewed_features_ = features;
    set_ = set;
  });
}

}  // namespace PyVelmot::core
