#include "velmot/defs/random.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "velmot/defs/exception.h"
#include "velmot/defs/parallel.h"

namespace Velmot {

std::ostream& operator<<(std::ostream& out, const XorShiftState& s) {
  return out << "{x=" << s.x << " y=" << s.y << " z=" << s.z << " w=" << s.w << "}";
}

std::ostream& operator<<(std::ostream& out, const XorShiftRNG& rng) { return out << rng.get_state(); }

void XorShiftRNGPool::clear() {
  for (XorShiftRNG*& rng : rngs) {
    delete rng;
    rng = nullptr;
  }
  rngs.clear();
}

void XorShiftRNGPool::init_using_rand(int seed, int max_threads) {
  srand(static_cast<unsigned>(seed));
  rngs.resize(static_cast<size_t>(max_threads), nullptr);
  for (int i = 0; i < max_threads; ++i) {
    int64_t words[4];
    for (int64_t& word : words) {
      do {
        word = static_cast<int64_t>(rand());
      } while (word == 0);
      word = XorShiftRNG::magnitude(word);
    }
    rngs[i] = new XorShiftRNG(XorShiftState{words[0], words[1], words[2], words[3]});
  }
}

void XorShiftRNGPool::init(const std::string& fn, int max_threads) {
  const char* path = fn == "/dev/random" ? "/dev/random" : fn.empty() ? "/dev/urandom" : fn.c_str();
  rngs.resize(static_cast<size_t>(max_threads), nullptr);
  // A failed open shows up as a failed read below.
  const int fd = open(path, O_RDONLY);
  for (int i = 0; i < max_threads; ++i) {
    int64_t words[4];
    for (int64_t& word : words) {
      do {
        if (read(fd, &word, sizeof word) != static_cast<ssize_t>(sizeof word)) {
          if (fd >= 0) close(fd);
          throw Exception("unable to read from random number file " + fn);
        }
      } while (word == 0);
      word = XorShiftRNG::magnitude(word);
    }
    rngs[i] = new XorShiftRNG(XorShiftState{words[0], words[1], words[2], words[3]});
  }
  close(fd);
}

XorShiftRNGPool* get_pool(const std::string& fn, int max_threads, int seed, bool reinit) {
  static XorShiftRNGPool* pool = nullptr;
  if (pool != nullptr && !reinit) return pool;
  if (pool != nullptr) {
    pool->clear();
  } else {
    pool = new XorShiftRNGPool();
  }
  if (seed != 0) {
    pool->init_using_rand(seed, max_threads);
  } else {
    pool->init(fn, max_threads);
  }
  return pool;
}

XorShiftRNG* get_rng() {
  const int n = worker_number();
  return get_pool("", 1, 0, false)->get_generator(static_cast<size_t>(n));
}

XorShiftRNG& thread_generator() {
  const size_t thread = static_cast<size_t>(worker_number());
  XorShiftRNGPool* pool = get_pool("", 1, 0, false);
  if (thread >= pool->size() || pool->get_generator(thread) == nullptr) {
    throw Exception("no random generator for this thread: seed the pool for the thread count first");
  }
  return *pool->get_generator(thread);
}

void init_pool(const std::string& fn, int seed) { get_pool(fn, pool_size, seed, true); }

}  // namespace Velmot
