#ifndef PYVELMOT_CORE_RELEASED_RUN_H
#define PYVELMOT_CORE_RELEASED_RUN_H

// run_released: library work on a thread of its own, while the calling
// Python thread waits with the GIL released. The waiting thread wakes when
// the work ends and a few times a second before that; on each wake it takes
// the GIL to check for signals (Ctrl-C) and to report progress through a
// Python callable. A signal handler that raises, or a callable that raises,
// sets the work's cancel flag; the work is then waited for (it stops at
// its next tree), everything it made is freed, and the Python error is
// raised.
//
// The work runs on a thread made for the call, so its OpenMP team, thread
// count and scratch belong to this call alone.

#include <pybind11/pybind11.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "velmot/learn/learning_progress.h"

namespace PyVelmot::core {

namespace py = pybind11;

// on_progress: None, or a callable taking the number of trees done.
template <class Work>
void run_released(Work&& work, Velmot::LearningProgress& progress, const py::object& on_progress) {
  constexpr auto wake_interval = std::chrono::milliseconds(200);
  std::mutex mutex;
  std::condition_variable finished_signal;
  bool finished = false;
  std::exception_ptr failure;
  bool interrupted = false;
  int64_t reported = 0;
  auto report = [&]() {
    const int64_t done = progress.trees_done.load();
    if (on_progress.is_none() || done == reported) return;
    reported = done;
    on_progress(done);
  };
  {
    py::gil_scoped_release released;
    std::thread worker([&]() {
      try {
        work();
      } catch (...) {
        failure = std::current_exception();
      }
      std::lock_guard<std::mutex> lock(mutex);
      finished = true;
      finished_signal.notify_one();
    });
    std::unique_lock<std::mutex> lock(mutex);
    while (!finished_signal.wait_for(lock, wake_interval, [&]() { return finished; })) {
      if (interrupted) continue;
      lock.unlock();
      {
        py::gil_scoped_acquire acquired;
        try {
          if (PyErr_CheckSignals() != 0) throw py::error_already_set();
          report();
        } catch (py::error_already_set& error) {
          error.restore();
          interrupted = true;
        }
      }
      if (interrupted) progress.cancel.store(true);
      lock.lock();
    }
    lock.unlock();
    worker.join();
  }
  if (interrupted) throw py::error_already_set();
  if (failure) std::rethrow_exception(failure);
  report();
}

}  // namespace PyVelmot::core

#endif
