#ifndef VELMOT_DEFS_RANDOM_H
#define VELMOT_DEFS_RANDOM_H

// Random numbers: a small xorshift-family generator and the process-wide pool
// holding one generator per OpenMP thread.
//
// The step mixes all four words with the shifts 20, 11, 27 and 6, and right
// shifts are arithmetic because the words are signed. It is not the textbook
// xorshift128 step; the exact streams (and so every forest learnt under a
// fixed seed) depend on these details.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Velmot {

struct XorShiftState {
  int64_t x;
  int64_t y;
  int64_t z;
  int64_t w;
};

std::ostream& operator<<(std::ostream& out, const XorShiftState& s);

class XorShiftRNG {
public:
  // Never used by the library; any state with non-zero words would do.
  XorShiftRNG() : state{123456789, 362436069, 521288629, 88675123} {}
  explicit XorShiftRNG(const XorShiftState& s) : state(s) {}

  void set_seed(const XorShiftState& s) { state = s; }
  const XorShiftState& get_state() const { return state; }

  int64_t next_int() {
    const uint64_t x = static_cast<uint64_t>(state.x);
    const int64_t t = state.x ^ state.y ^ state.z ^ state.w ^ static_cast<int64_t>(x << 20) ^ (state.y >> 11) ^
                      static_cast<int64_t>(static_cast<uint64_t>(state.z) << 27) ^ (state.w >> 6);
    state.x = state.y;
    state.y = state.z;
    state.z = state.w;
    state.w = t;
    return t;
  }

  // A value in [0, max); max must be positive.
  int64_t next_int(int64_t max) { return magnitude(next_int()) % max; }

  // A multiple of 1e-6 in [0, 0.999999].
  double next_double() { return static_cast<double>(magnitude(next_int()) % 1000000) / 1000000.0; }

  // |r| in two's complement: the most negative value stays itself (and its
  // remainders stay non-positive, exactly as the signed division gives).
  // By a mask of the sign, not a branch: the sign is random.
  static int64_t magnitude(int64_t r) {
    const uint64_t negative = static_cast<uint64_t>(r >> 63);  // all ones for r < 0
    return static_cast<int64_t>((static_cast<uint64_t>(r) ^ negative) - negative);
  }

private:
  XorShiftState state;
};

std::ostream& operator<<(std::ostream& out, const XorShiftRNG& rng);

class XorShiftRNGPool {
public:
  XorShiftRNGPool() = default;
  XorShiftRNGPool(const XorShiftRNGPool&) = delete;
  XorShiftRNGPool& operator=(const XorShiftRNGPool&) = delete;
  ~XorShiftRNGPool() { clear(); }

  void clear();
  // No range check: callers size the pool for their thread count.
  XorShiftRNG* get_generator(size_t i) { return rngs[i]; }
  size_t size() const { return rngs.size(); }

  // Generator i gets the (4i+1)-th to (4i+4)-th non-zero rand() values.
  void init_using_rand(int seed, int max_threads);
  // 8-byte words from a random device file ("" is /dev/urandom).
  void init(const std::string& fn, int max_threads);

private:
  std::vector<XorShiftRNG*> rngs;
};

// The process-wide pool, created on first use and never freed. With reinit
// false an existing pool is returned unchanged and the arguments ignored; a
// seed of 0 always means seeding from the device file.
XorShiftRNGPool* get_pool(const std::string& fn, int max_threads, int seed, bool reinit);

// The calling worker's generator (worker_number(), defs/parallel.h; lazily
// a one-generator pool).
XorShiftRNG* get_rng();

// The same, refused with an Exception where get_rng would read past the
// pool or find an empty slot: what learning uses, so that a pool seeded for
// fewer threads than run fails clearly.
XorShiftRNG& thread_generator();

// Re-seeds the process-wide pool with 32 generators.
void init_pool(const std::string& fn, int seed);

constexpr int pool_size = 32;

}  // namespace Velmot

#endif
