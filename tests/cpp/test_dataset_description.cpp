#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "velmot/dataset/dataset_description.h"

using namespace Velmot;
using VelmotTest::message_of;

TEST(StringIntMap, OneCodePerStringAndTheLastStringPerCode) {
  StringIntMap map;
  for (const auto& [name, code] : {std::pair{"red", 0}, {"red", 0}, {"blue", 0}, {"green", -7}}) {
    map.add_label(name, code);
  }
  EXPECT_EQ(message_of([&] { map.add_label("red", 1); }), "String label 'red' already used for different numeric id 0");
  // The failed call changed nothing.
  EXPECT_FALSE(map.contains(1));
  EXPECT_EQ(map.get_int_label("red"), 0);
  EXPECT_EQ(map.get_string_label(0), "blue");
  EXPECT_EQ(map.size(), 3u);
  EXPECT_EQ(map.num_codes(), 2u);
  EXPECT_EQ(message_of([&] { map.get_int_label("white"); }), "unknown string label 'white'");
  EXPECT_EQ(message_of([&] { map.get_string_label(1); }), "unknown numeric label 1");
}

TEST(DataSetDescription, ClassesNominalFeaturesAndNames) {
  DataSetDescription description;
  description.add_label_pair("negative", 0);
  description.add_label_pair("positive", 5);
  description.add_label_pair("pos", 5);
  // Two names for code 5 are one class; codes need not be contiguous.
  EXPECT_EQ(description.get_num_classes(), 2u);

  description.add_nominal_feature(2, "low", 0);
  description.add_nominal_feature(2, "high", 1);
  description.add_nominal_feature(5, "low", 7);
  EXPECT_TRUE(description.is_nominal_feature(2));
  EXPECT_FALSE(description.is_nominal_feature(-1));
  EXPECT_EQ(description.get_string_feature(2, 1), "high");
  EXPECT_EQ(description.get_int_feature(5, "low"), 7);
  EXPECT_EQ(message_of([&] { description.get_int_feature(3, "low"); }), "feature 3 is not nominal");
  EXPECT_EQ(message_of([&] { description.get_string_feature(2, 7); }), "unknown numeric label 7");
  EXPECT_EQ(message_of([&] { description.add_nominal_feature(2, "low", 1); }),
            "String label 'low' already used for different numeric id 0");

  description.set_feature_name(0, "age");
  EXPECT_EQ(description.get_feature_name(1), "");
  EXPECT_EQ(description.get_feature_name(-1), "");
}

TEST(DataSetDescription, IgnorableFlagsFollowTheFeatureCountAndGrowOnDemand) {
  DataSetDescription description;
  description.set_num_features(5);
  description.set_ignorable(1);
  description.set_ignorable(4);
  description.set_num_features(3);
  EXPECT_EQ(description.get_num_ignorable_flags(), 3u);
  // Growing again brings flag 4 back as 0, not as the dropped 1.
  description.set_num_features(6);
  EXPECT_FALSE(description.is_ignorable(4));
  EXPECT_TRUE(description.is_ignorable(1));
  EXPECT_EQ(message_of([&] { description.set_num_features(-1); }), "number of features must be non-negative, not -1");
  EXPECT_EQ(description.get_num_features(), 6);

  description.set_ignorable(12);
  EXPECT_EQ(description.get_num_ignorable_flags(), 13u);
  description.set_ignorable(0);
  EXPECT_EQ(description.get_num_ignorable_flags(), 13u);
  EXPECT_EQ(description.get_ignored_columns(), (std::set<int>{0, 1, 12}));
  EXPECT_FALSE(description.is_ignorable(13));
  EXPECT_FALSE(description.is_ignorable(-1));
  EXPECT_EQ(message_of([&] { description.set_ignorable(-3); }), "column to ignore must be non-negative, not -3");
  // The largest column costs no more than any other.
  description.set_ignorable(2147483647);
  EXPECT_EQ(description.get_num_ignorable_flags(), 2147483648u);
  EXPECT_TRUE(description.is_ignorable(2147483647));
}
