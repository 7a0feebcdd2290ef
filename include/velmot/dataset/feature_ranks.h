#ifndef VELMOT_DATASET_FEATURE_RANKS_H
#define VELMOT_DATASET_FEATURE_RANKS_H

// FeatureRanks: for each feature of a data set, the dense rank of every
// instance's value (0 for the smallest distinct value). Made once per
// learning call and shared read-only by all trees, it lets a node sort small
// integer ranks instead of values, with a counting or two-pass radix sort;
// the ranks order exactly as the values do, so the sorted pairs are those a
// comparison sort gives.
//
// A rank's value is read at any instance that holds it (value_at): the
// grower finds one among the node's instances while it partitions them, so
// no table from ranks to values or instances is kept (at 500,000 instances
// it would take as much memory as the ranks). Equal values other than zero
// have equal bits; the two zeros share a rank, whose value is the zero of
// the feature's last instance holding a zero, as when a table of values is
// filled in instance order. A feature of at most few_values_limit distinct
// values does keep its values by rank (value_of_rank; 2 KB at most): there
// a node's instances hold the two ranks around a split so often that
// watching for them mispredicts, and reading their values at instances
// misses the cache, which the small table does not.
//
// A feature holding a not-a-number value gets no ranks (has_ranks false):
// NaN has no place in an order, and its nodes use the value sort instead.
//
// Each feature's ranks take the fewest bytes that hold its largest rank (1,
// 2 or 4: a width), since a node's gather reads them at scattered positions
// and a narrower column keeps more of them cached: on 256 distinct values,
// int32 and float features then fit as fast as bytes. Readers get a column
// through visit_ranks, in its own width.
//
// F: the feature type, an integer or IEEE floating-point type of at most 64
// bits (int, float, double, unsigned char); checked in ordered_key.
//
// Glossary:
//   key        ordered_key of a value (defs/ordered_key.h): an unsigned
//              integer whose order is the value order; -0.0 and +0.0 share
//              the key of +0.0, any two other values share a key only if
//              they are equal.
//   high half  the top 32 bits of a key (all of a key of 32 bits or fewer).
//   digit      11 bits of the high half: 3 digits for floats, doubles and
//              ints, 1 for bytes.
//   run        consecutive sorted entries with one key: one rank.
//
// Steps, per feature (features in parallel, one workspace per thread):
//   1. Make the (key, instance) entries of the column, counting every
//      digit's values on the way (a NaN ends the feature: no ranks).
//   2. Least-significant-digit radix sort of the entries on the high half,
//      skipping each digit on which all keys agree. Every pass is stable, so
//      entries with one high half stay in instance order.
//   3. Keys of 64 bits: sort each group of entries with one high half whose
//      keys are out of order by (key, instance).
//   4. Walk the sorted entries: the rank grows by one at each new run.
//      Keep the zero of the last instance holding one (see above), the
//      value at the middle entry (upper_median) and, for few values, each
//      run's value.
//   5. After all features: narrow each column to its width, in place and in
//      feature order (a column never moves past where it was written).
//
// A comparison sort of (value, instance) pairs takes 324 ms of CPU for 40
// columns of 100,000 doubles on one thread, these steps 92 ms
// (bench/bench_feature_ranks.cpp).

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/defs/ordered_key.h"
#include "velmot/defs/parallel.h"
#include "velmot/defs/random_access_table.h"

namespace Velmot {

namespace feature_ranks_detail {

template <class F>
using KeyOf = OrderedKey<F>;

// What the radix passes move: a key and its instance (8 bytes for keys of
// up to 32 bits, 16 for 64-bit keys). Carrying the whole key saves reading
// the column at random afterwards: 8-byte entries of the high half and the
// instance, with the key read back from the column in the final walk, took
// 105 ms instead of 90 (40 columns of 100,000 doubles, one thread).
template <class Key>
struct Entry {
  Key key;
  uint32_t instance;
};

// The passes sort on the key's high 32 bits at most; longer keys are then
// finished run by run (order_runs_by_low_half).
template <class F>
constexpr unsigned first_sorted_bit() {
  return 8 * sizeof(KeyOf<F>) > 32 ? 8 * sizeof(KeyOf<F>) - 32 : 0;
}

// Digits of 11 bits: 3 passes cover 32 bits. On 40 columns of 100,000
// doubles, one thread: 92 ms of CPU with 11-bit digits, 100 ms with 8-bit
// ones (4 passes), 89 ms with 16-bit ones (2 passes), which however clear
// and sum two histograms of 65,536 counts for every column, however short.
constexpr unsigned digit_bits = 11;
constexpr size_t radix = size_t(1) << digit_bits;

template <class F>
constexpr unsigned num_digits() {
  return (8 * sizeof(KeyOf<F>) - first_sorted_bit<F>() + digit_bits - 1) / digit_bits;
}

// One thread's scratch memory, made before the parallel loop.
template <class F>
struct Workspace {
  std::vector<Entry<KeyOf<F>>> entries, spare;
  std::vector<uint32_t> counts;  // one histogram of radix entries per digit
};

// Keys longer than 32 bits, sorted on their high 32 bits: each run of
// entries with one high half is in instance order; put it in key order,
// equal keys still in instance order. Runs are rare and short on continuous
// data; on data with ties they are long but already in key order.
template <class Key>
void order_runs_by_low_half(Entry<Key>* entries, size_t n) {
  const auto high_half = [](const Entry<Key>& e) { return e.key >> 32; };
  size_t start = 0;
  while (start < n) {
    size_t end = start + 1;
    bool sorted = true;
    for (; end < n && high_half(entries[end]) == high_half(entries[start]); ++end) {
      sorted = sorted && entries[end - 1].key <= entries[end].key;
    }
    if (!sorted) {
      std::sort(entries + start, entries + end, [](const Entry<Key>& a, const Entry<Key>& b) {
        return a.key < b.key || (a.key == b.key && a.instance < b.instance);
      });
    }
    start = end;
  }
}

// Steps 1 and 2 for one column of n > 0 values. Returns false for a column
// holding NaN; otherwise work.entries holds the keys in increasing order,
// equal keys in instance order.
template <class F>
bool sort_keys(const F* column, size_t n, Workspace<F>& work) {
  typedef KeyOf<F> Key;
  constexpr unsigned digits = num_digits<F>();
  constexpr unsigned first_bit = first_sorted_bit<F>();
  uint32_t* const counts = work.counts.data();
  std::fill(counts, counts + digits * radix, 0u);
  Entry<Key>* entries = work.entries.data();
  for (size_t i = 0; i < n; ++i) {
    const F value = column[i];
    if (!(value == value)) return false;
    const Key key = ordered_key(value);
    entries[i].key = key;
    entries[i].instance = static_cast<uint32_t>(i);
    for (unsigned d = 0; d < digits; ++d) ++counts[d * radix + ((key >> (first_bit + d * digit_bits)) & (radix - 1))];
  }
  Entry<Key>* spare = work.spare.data();
  for (unsigned d = 0; d < digits; ++d) {
    const unsigned shift = first_bit + d * digit_bits;
    uint32_t* const offset = counts + d * radix;
    // All keys agree on this digit: the pass would change nothing.
    if (offset[(entries[0].key >> shift) & (radix - 1)] == n) continue;
    uint32_t start = 0;
    for (size_t b = 0; b < radix; ++b) {
      const uint32_t count = offset[b];
      offset[b] = start;
      start += count;
    }
    for (size_t i = 0; i < n; ++i) spare[offset[(entries[i].key >> shift) & (radix - 1)]++] = entries[i];
    std::swap(entries, spare);
  }
  if (entries != work.entries.data()) work.entries.swap(work.spare);
  if constexpr (first_bit > 0) order_runs_by_low_half(work.entries.data(), n);
  return true;
}

}  // namespace feature_ranks_detail

// Whether learning ranks features of type F under labels of type L:
// floating-point features always; int features under integer labels, so
// that their nodes sort packed ranks as floating-point ones do (with the
// value sort, int32 data fits about twice as slowly as the same values in
// float64); not under real labels, whose value sort puts each label on
// its class's grid. Bytes serve as their own ranks.
template <class F, class L>
constexpr bool learns_with_ranks() {
  return std::is_floating_point<F>::value || (std::is_same<F, int>::value && std::is_integral<L>::value);
}

template <class F>
class FeatureRanks {
public:
  // Features of at most this many distinct values keep them by rank.
  static constexpr size_t few_values_limit = 256;

  FeatureRanks() = default;

  // D offers get_num_features(), get_num_instances() (fewer than 2^32) and
  // column(j), a contiguous column of F.
  template <class D>
  explicit FeatureRanks(const D& data)
      : rank_count(data.get_num_features(), 0),
        zero(data.get_num_features(), F(0)),
        middle_value(data.get_num_features(), F(0)),
        few_values(data.get_num_features()),
        ranked(data.get_num_features(), 0) {
    namespace detail = feature_ranks_detail;
    const int64_t nf = static_cast<int64_t>(data.get_num_features());
    const size_t ni = data.get_num_instances();
    if (nf == 0 || ni == 0) return;
    // Scratch memory and the rank table are made here, before the workers
    // start. Every rank of a ranked feature is written below, 4 bytes each
    // at first: no zero fill.
    num_instances = ni;
    rank_table = RandomAccessTable<unsigned char>(static_cast<size_t>(nf) * ni * sizeof(uint32_t));
    const size_t workers = static_cast<size_t>(std::min<int64_t>(default_team_size(), nf));
    std::vector<detail::Workspace<F>> workspaces(workers);
    for (auto& work : workspaces) {
      work.entries.resize(ni);
      work.spare.resize(ni);
      work.counts.resize(detail::num_digits<F>() * detail::radix);
    }
    for_each_index(nf, static_cast<int>(workers), [&](int64_t j, const Worker& w) {
      const size_t feature = static_cast<size_t>(j);
      const F* column = data.column(feature);
      detail::Workspace<F>& work = workspaces[static_cast<size_t>(w.number)];
      if (!detail::sort_keys(column, ni, work)) return;
      const auto* entries = work.entries.data();
      uint32_t* const ranks = reinterpret_cast<uint32_t*>(rank_table.data()) + feature * ni;
      uint32_t current = 0;
      for (size_t k = 0; k < ni; ++k) {
        current += k > 0 && entries[k].key != entries[k - 1].key;
        ranks[entries[k].instance] = current;
      }
      rank_count[feature] = current + 1;
      for (size_t i = ni; i-- > 0;) {
        if (column[i] == F(0)) {
          zero[feature] = column[i];
          break;
        }
      }
      if (current < few_values_limit) {
        std::vector<F>& values = few_values[feature];
        values.reserve(current + 1);
        for (size_t k = 0; k < ni; ++k) {
          if (k == 0 || entries[k].key != entries[k - 1].key) {
            values.push_back(value_at(column, feature, entries[k].instance));
          }
        }
      }
      middle_value[feature] = value_at(column, feature, entries[ni / 2].instance);
      ranked[feature] = 1;
    });
    narrow_columns();
  }

  // Turns the ranks instance-major (row i: instance i's rank of every
  // feature, 0 for unranked ones, 4 bytes each) and frees the columns. A
  // node holding a small share of the instances reads one rank per instance
  // and feature from anywhere in a column, a cache miss each; the features
  // a node tries for one instance then share a few cache lines instead of
  // one line each. Worth it only where the table outgrows the cache: below,
  // every column stays cached. A large node reads the rows as fast as the
  // columns (W1, 100,000 x 40 doubles, two threads: the same CPU time), so
  // the columns are not kept beside them.
  void copy_to_rows() {
    const size_t nf = ranked.size();
    if (nf == 0 || num_instances == 0) return;
    row_table = RandomAccessTable<uint32_t>(nf * num_instances);
    uint32_t* const rows = row_table.data();
    const int64_t ni = static_cast<int64_t>(num_instances);
    // Blocks of instances, each row written whole, columns read forwards.
    const int64_t block = 1024;
    const int64_t num_blocks = (ni + block - 1) / block;
    for_each_index(num_blocks, default_team_size(), [&](int64_t b, const Worker&) {
      const size_t first = static_cast<size_t>(b * block);
      const size_t last = static_cast<size_t>(std::min((b + 1) * block, ni));
      for (size_t f = 0; f < nf; ++f) {
        if (!ranked[f]) {
          for (size_t i = first; i < last; ++i) rows[i * nf + f] = 0;
          continue;
        }
        visit_columns(f, [&](const auto* column) {
          for (size_t i = first; i < last; ++i) rows[i * nf + f] = column[i];
        });
      }
    });
    rank_table = RandomAccessTable<unsigned char>();
  }
  bool has_rows() const { return row_table.size() != 0; }
  // Whether a node of node_size positions reads the rows: whenever they
  // exist, since the columns are gone then.
  bool rows_serve(size_t /*node_size*/) const { return has_rows(); }
  // Feature j's rank of instance i is row_ranks(j)[i * row_stride()].
  const uint32_t* row_ranks(size_t feature) const { return row_table.data() + feature; }
  size_t row_stride() const { return ranked.size(); }
  // Bytes of the ranked features' columns.
  size_t table_bytes() const { return table_end; }

  bool has_ranks(size_t feature) const { return feature < ranked.size() && ranked[feature] != 0; }
  // Returns visit(column), column the ranked feature's ranks (while there
  // are no rows) as a pointer to uint8_t, uint16_t or uint32_t (its
  // width); visit's result must not depend on the pointer's type.
  template <class Visit>
  decltype(auto) visit_ranks(size_t feature, Visit&& visit) const {
    // The columns are freed once the rows exist: a reader that did not ask
    // rows_serve first would read freed memory.
    if (has_rows()) throw std::logic_error("rank columns read after the rank rows replaced them");
    return visit_columns(feature, std::forward<Visit>(visit));
  }
  // One rank, from the columns or the rows, whichever there are.
  uint32_t rank(size_t feature, size_t instance) const {
    if (has_rows()) return row_ranks(feature)[instance * row_stride()];
    return visit_ranks(feature, [instance](const auto* column) { return static_cast<uint32_t>(column[instance]); });
  }
  // The value of the rank that `instance` holds in a ranked feature; column:
  // the feature's column in the data set the ranks were made from, or in
  // one with equal values.
  F value_at(const F* column, size_t feature, size_t instance) const {
    const F value = column[instance];
    return value == F(0) ? zero[feature] : value;
  }
  // Whether a ranked feature keeps its values by rank: one of at most
  // few_values_limit distinct values.
  bool has_values_by_rank(size_t feature) const { return !few_values[feature].empty(); }
  // The value rank `rank` stands for (as value_at), where has_values_by_rank.
  F value_of_rank(size_t feature, uint32_t rank) const { return few_values[feature][rank]; }
  // Number of distinct values of a ranked feature: its ranks lie below it.
  size_t num_ranks(size_t feature) const { return rank_count[feature]; }
  // The value at position n / 2 of a ranked feature's n sorted values (the
  // upper of the two middle ones for even n): the imputation's median of a
  // column without missing values, read off the sort for free. Where that
  // position holds a zero and both zeros occur, it is the zero the rank
  // stands for (value_at), whichever sign a selection would have found.
  F upper_median(size_t feature) const { return middle_value[feature]; }

private:
  template <class Visit>
  decltype(auto) visit_columns(size_t feature, Visit&& visit) const {
    const unsigned char* column = rank_table.data() + column_offset[feature];
    switch (column_width[feature]) {
      case 1:
        return visit(column);
      case 2:
        return visit(reinterpret_cast<const uint16_t*>(column));
      default:
        return visit(reinterpret_cast<const uint32_t*>(column));
    }
  }

  // Step 5: each ranked column, written 4 bytes a rank at feature * ni * 4,
  // moves to table_end in its own width; columns start at multiples of 4
  // bytes. A column's new place never passes its old one, and each rank is
  // read before anything is written over it.
  void narrow_columns() {
    const size_t nf = ranked.size();
    column_offset.assign(nf, 0);
    column_width.assign(nf, 0);
    table_end = 0;
    unsigned char* const table = rank_table.data();
    for (size_t f = 0; f < nf; ++f) {
      if (!ranked[f]) continue;
      const size_t distinct = rank_count[f];
      const unsigned width = distinct <= 256 ? 1 : distinct <= 65536 ? 2 : 4;
      const unsigned char* from = table + f * num_instances * sizeof(uint32_t);
      unsigned char* to = table + table_end;
      column_offset[f] = table_end;
      column_width[f] = static_cast<unsigned char>(width);
      if (width == 4) {
        if (to != from) std::memmove(to, from, num_instances * sizeof(uint32_t));
      } else {
        for (size_t i = 0; i < num_instances; ++i) {
          uint32_t rank;
          std::memcpy(&rank, from + i * sizeof(uint32_t), sizeof(uint32_t));
          if (width == 1) {
            to[i] = static_cast<unsigned char>(rank);
          } else {
            const uint16_t narrow = static_cast<uint16_t>(rank);
            std::memcpy(to + i * 2, &narrow, 2);
          }
        }
      }
      table_end += (num_instances * width + 3) / 4 * 4;
    }
  }

  // The ranked features' columns (until copy_to_rows), one block, so that
  // the gathers' scattered reads go through huge pages: feature j's at
  // column_offset[j], column_width[j] bytes a rank.
  RandomAccessTable<unsigned char> rank_table;
  std::vector<size_t> column_offset;
  std::vector<unsigned char> column_width;
  size_t table_end = 0;
  // Empty unless copy_to_rows ran.
  RandomAccessTable<uint32_t> row_table;
  size_t num_instances = 0;
  std::vector<uint32_t> rank_count;
  // Per feature, the zero its rank of zero stands for (see above).
  std::vector<F> zero;
  std::vector<F> middle_value;
  // Per feature of few distinct values, its values by rank; empty otherwise.
  std::vector<std::vector<F>> few_values;
  std::vector<char> ranked;
};

}  // namespace Velmot

#endif
