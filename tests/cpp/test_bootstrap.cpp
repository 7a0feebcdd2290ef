#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/bootstrap.h"
#include "velmot/defs/random.h"

namespace {

using Data = Velmot::MemoryDataSet<float, int>;
const Velmot::XorShiftState fixed_state{1234567, 7654321, 1111111, 2222222};

Data ten_instances() {
  Data data(2);
  for (int i = 0; i < 10; ++i) {
    data.features[0].push_back(static_cast<float>(i) + 0.5f);
    data.features[1].push_back(static_cast<float>(-i));
    data.labels.push_back(i % 3);
  }
  return data;
}

TEST(Bootstrap, DrawsAreSuccessiveOutputsModuloTheInstanceCount) {
  const Data data = ten_instances();
  Velmot::XorShiftRNG rng(fixed_state), replay(fixed_state);
  const auto sample = Velmot::random_subset_iid(&data, 1.0, rng);
  ASSERT_EQ(sample.get_num_instances(), 10u);
  for (size_t k = 0; k < 10; ++k) {
    const int64_t expected = Velmot::XorShiftRNG::magnitude(replay.next_int()) % 10;
    EXPECT_EQ(sample.indices[k], static_cast<uint64_t>(expected));
    EXPECT_EQ(sample.feature_label_buffer[k], std::make_pair(0.0f, data.labels[expected]));
  }
  // One step per drawn instance, no more.
  EXPECT_EQ(rng.get_state().w, replay.get_state().w);
  EXPECT_EQ(rng.get_state().x, replay.get_state().x);
}

TEST(Bootstrap, SampleSizeIsTruncatedAndImpossibleFractionsAreRefused) {
  const Data data = ten_instances();
  const struct {
    double fraction;
    size_t size;
  } cases[] = {{0.25, 2}, {0.05, 0}, {2.0, 20}, {0.0, 0}, {0.99, 9}};
  for (const auto& c : cases) {
    Velmot::XorShiftRNG rng(fixed_state);
    const auto sample = Velmot::random_subset_iid(&data, c.fraction, rng);
    EXPECT_EQ(sample.get_num_instances(), c.size) << c.fraction;
    EXPECT_EQ(sample.feature_label_buffer.size(), c.size);
  }
  Velmot::XorShiftRNG rng(fixed_state);
  for (const double bad : {-0.5, std::nan(""), 1e300}) {
    EXPECT_THROW(Velmot::random_subset_iid(&data, bad, rng), Velmot::Exception) << bad;
  }
  EXPECT_EQ(rng.get_state().w, fixed_state.w);
}

}  // namespace
