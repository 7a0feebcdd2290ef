#ifndef VELMOT_DEFS_PARALLEL_H
#define VELMOT_DEFS_PARALLEL_H

// Every parallel region of the library runs through run_team, which gives
// two guarantees OpenMP alone does not:
//
// - No exception leaves a region (one that does ends the process). The
//   first exception a worker throws is kept, the other workers see
//   Worker::stopped() turn true and may stop early, and the exception is
//   rethrown on the calling thread once the team has ended.
// - A process forked after the library ran a team of several threads does
//   not hang: the OpenMP runtime's thread pool does not survive fork, so in
//   such a child the workers of a team of n run one after another on the
//   calling thread, worker t as if it were thread t (worker_number() is t).
//   Whatever depends on the worker number, such as the generator a worker
//   draws from and the block of trees it learns, is then the same as on n
//   threads, and so are the results.
//
// Words: a team is the set of workers of one region; a worker is one
// OpenMP thread of it, or its stand-in in a forked child. A nested team (a
// region inside a worker) has one worker, as OpenMP's default gives.

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>

namespace Velmot {

// One worker of a running team, as its body sees it.
struct Worker {
  int number;     // 0 .. team_size - 1
  int team_size;  // the number of workers in the team
  const std::atomic<bool>* stop;
  // True once another worker failed: the rest of this worker's work is lost.
  bool stopped() const { return stop->load(std::memory_order_relaxed); }
};

namespace parallel_detail {

// Worker number of the stand-in worker running on this thread, -1 for none.
int stand_in_worker();
void set_stand_in_worker(int number);

// Thread-local storage of a library loaded at run time (this one, the C++
// runtime's exception state) is allocated on a thread's first use of it,
// and glibc ends the process when that allocation fails: a first exception
// thrown after the work has exhausted memory would do so. A worker
// therefore allocates both before it starts.
void allocate_thread_storage();

// True in a process forked after the library had started a team of several
// threads (in it or in an ancestor).
bool threads_lost_in_fork();

// Records that a team of several threads starts, and registers the fork
// handler that reads this record in a child (once per process).
void note_threads_started();

// Runs body(worker) for workers 0 .. team - 1 on the calling thread.
template <class Guarded>
void run_stand_ins(int team, Guarded& guarded) {
  const int outer = stand_in_worker();
  for (int t = 0; t < team; ++t) {
    set_stand_in_worker(t);
    guarded(t, team);
  }
  set_stand_in_worker(outer);
}

}  // namespace parallel_detail

// The calling worker's number: its stand-in number in a forked child, else
// its OpenMP thread number (0 outside any region).
inline int worker_number() {
  const int t = parallel_detail::stand_in_worker();
  return t >= 0 ? t : omp_get_thread_num();
}

// The team size a region asks for by default: the process's OpenMP setting.
inline int default_team_size() { return std::max(omp_get_max_threads(), 1); }

// Runs body(const Worker&) on a team of at most `team` workers (OpenMP may
// grant fewer threads; a forked child runs exactly `team`). Rethrows the
// first exception a worker threw, after every worker has returned.
template <class Body>
void run_team(int team, Body&& body) {
  team = std::max(team, 1);
  std::atomic<bool> stop{false};
  std::exception_ptr failure;
  std::mutex failure_lock;
  auto guarded = [&](int number, int team_size) {
    parallel_detail::allocate_thread_storage();
    try {
      body(Worker{number, team_size, &stop});
    } catch (...) {
      stop.store(true, std::memory_order_relaxed);
      std::lock_guard<std::mutex> hold(failure_lock);
      if (!failure) failure = std::current_exception();
    }
  };
  const bool nested = omp_in_parallel() || parallel_detail::stand_in_worker() >= 0;
  if (nested || team == 1) {
    parallel_detail::run_stand_ins(1, guarded);
  } else if (parallel_detail::threads_lost_in_fork()) {
    parallel_detail::run_stand_ins(team, guarded);
  } else {
    parallel_detail::note_threads_started();
#pragma omp parallel num_threads(team)
    guarded(omp_get_thread_num(), omp_get_num_threads());
  }
  if (failure) std::rethrow_exception(failure);
}

// The contiguous block [first, last) of `count` items that worker w takes
// in a static schedule: blocks of ceil(count / team size), in worker order;
// the last workers may get fewer items or none.
struct Block {
  int64_t first;
  int64_t last;
};
inline Block block_of(int64_t count, const Worker& w) {
  const int64_t team = w.team_size;
  const int64_t chunk = count / team + (count % team != 0 ? 1 : 0);
  return Block{std::min<int64_t>(w.number * chunk, count), std::min<int64_t>((w.number + 1) * chunk, count)};
}

// Runs item(i, worker) for every i of [0, count), handed out one at a time
// to the workers of a team of at most `team` (a dynamic schedule: for items
// whose costs differ). No item is handed out after a failure.
template <class Item>
void for_each_index(int64_t count, int team, Item&& item) {
  if (count <= 0) return;
  std::atomic<int64_t> next{0};
  run_team(static_cast<int>(std::min<int64_t>(team, count)), [&](const Worker& w) {
    for (int64_t i = next.fetch_add(1); i < count && !w.stopped(); i = next.fetch_add(1)) item(i, w);
  });
}

}  // namespace Velmot

#endif
