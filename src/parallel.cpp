#include "velmot/defs/parallel.h"

#include <pthread.h>

#include <exception>

namespace Velmot {
namespace parallel_detail {

namespace {

thread_local int stand_in = -1;

// Set before the first team of several threads starts; a fork copies it.
std::atomic<bool> threads_started{false};
// Set in a child forked after threads_started: its OpenMP thread pool is gone.
std::atomic<bool> threads_lost{false};

void after_fork_in_child() {
  if (threads_started.load()) threads_lost.store(true);
}

}  // namespace

int stand_in_worker() { return stand_in; }

void set_stand_in_worker(int number) { stand_in = number; }

void allocate_thread_storage() {
  volatile int exceptions_in_flight = std::uncaught_exceptions();
  int* volatile own_storage = &stand_in;
  static_cast<void>(exceptions_in_flight);
  static_cast<void>(own_storage);
}

bool threads_lost_in_fork() { return threads_lost.load(std::memory_order_relaxed); }

void note_threads_started() {
  // Registered once, before any thread of the library exists, so that no
  // fork can come between the threads and the handler.
  static const bool registered = pthread_atfork(nullptr, nullptr, after_fork_in_child) == 0;
  (void)registered;
  threads_started.store(true, std::memory_order_relaxed);
}

}  // namespace parallel_detail
}  // namespace Velmot
