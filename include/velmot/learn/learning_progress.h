#ifndef VELMOT_LEARN_LEARNING_PROGRESS_H
#define VELMOT_LEARN_LEARNING_PROGRESS_H

// What a learning call shares with whoever waits for it: a count of
// finished trees, which the learner raises, and a cancel flag, which the
// waiter sets to make the learner skip the trees it has not started.

#include <atomic>
#include <cstdint>

namespace Velmot {

struct LearningProgress {
  std::atomic<int64_t> trees_done{0};
  std::atomic<bool> cancel{false};
};

}  // namespace Velmot

#endif
