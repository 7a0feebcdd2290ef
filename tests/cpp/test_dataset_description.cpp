#include <gtest/gtest.h>

#include <string>

#include "velmot/dataset/dataset_description.h"
#include "velmot/defs/exception.h"

using namespace Velmot;

namespace {

// The message of the library Exception that `call` throws.
template <class Call>
std::string exception_message(Call call) {
  try {
    call();
  } catch (const DataIOException&) {
    return "unexpected DataIOException";
  } catch (const Exception& e) {
    return e.get_message();
  }
  return "no exception";
}

}  // namespace

TEST(StringIntMap, OneCodePerStringAndTheLastStringPerCode) {
  StringIntMap map;
  map.add_label("red", 0);
  map.add_label("red", 0);
  map.add_label("blue", 0);
  map.add_label("green", -7);
  EXPECT_EQ(exception_message([&] { map.add_label("red", 1); }),
            "String label 'red' already used for different numeric id 0");
  // The failed call changed nothing.
  EXPECT_FALSE(map.contains(1));
  EXPECT_EQ(map.get_int_label("red"), 0);
  EXPECT_EQ(map.get_string_label(0), "blue");
  EXPECT_EQ(map.get_string_label(-7), "green");
  EXPECT_EQ(map.size(), 3u);
  EXPECT_EQ(map.num_codes(), 2u);
  EXPECT_EQ(exception_message([&] { map.get_int_label("white"); }), "unknown string label 'white'");
  EXPECT_EQ(exception_message([&] { map.get_string_label(1); }), "unknown numeric label 1");
  EXPECT_FALSE(map.contains("white"));
}

TEST(DataSetDescription, DefaultsCopiesAndClassCount) {
  DataSetDescription description;
  EXPECT_EQ(description.get_labeling(), DiscreteZeroOnward);
  EXPECT_EQ(description.get_class_column(), -1);
  EXPECT_EQ(description.get_num_features(), 0);
  EXPECT_FALSE(description.is_number_labeling());
  // A copy is an independent value.
  DataSetDescription copy = description;
  copy.set_number_labeling(true);
  EXPECT_NE(copy, description);
  EXPECT_FALSE(description.is_number_labeling());

  description.add_label_pair("negative", 0);
  description.add_label_pair("positive", 5);
  description.add_label_pair("pos", 5);
  // Two names for code 5 are one class; codes need not be contiguous.
  EXPECT_EQ(description.get_num_classes(), 2u);
  EXPECT_EQ(description.get_int_label("positive"), 5);
}

TEST(DataSetDescription, NominalFeaturesHaveOneMapEach) {
  DataSetDescription description;
  EXPECT_FALSE(description.is_nominal_feature(2));
  description.add_nominal_feature(2, "low", 0);
  description.add_nominal_feature(2, "high", 1);
  description.add_nominal_feature(5, "low", 7);
  EXPECT_TRUE(description.is_nominal_feature(2));
  EXPECT_FALSE(description.is_nominal_feature(-1));
  EXPECT_EQ(description.get_string_feature(2, 1), "high");
  EXPECT_EQ(description.get_int_feature(2, "low"), 0);
  EXPECT_EQ(description.get_int_feature(5, "low"), 7);

  EXPECT_EQ(exception_message([&] { description.get_int_feature(3, "low"); }), "feature 3 is not nominal");
  EXPECT_EQ(exception_message([&] { description.get_string_feature(2, 7); }), "unknown numeric label 7");
  EXPECT_EQ(exception_message([&] { description.add_nominal_feature(2, "low", 1); }),
            "String label 'low' already used for different numeric id 0");
}

TEST(DataSetDescription, AbsentFeatureNamesAreEmpty) {
  DataSetDescription description;
  description.set_feature_name(0, "age");
  EXPECT_EQ(description.get_feature_name(1), "");
  EXPECT_EQ(description.get_feature_name(-1), "");
}

TEST(DataSetDescription, ShrinkingTheFeatureCountKeepsOnlyTheFlagsBelowIt) {
  DataSetDescription description;
  description.set_num_features(5);
  description.set_ignorable(1);
  description.set_ignorable(4);
  description.set_num_features(3);
  EXPECT_EQ(description.get_num_features(), 3);
  EXPECT_EQ(description.get_num_ignorable_flags(), 3u);
  EXPECT_TRUE(description.is_ignorable(1));
  EXPECT_FALSE(description.is_ignorable(4));
  // Growing again brings flag 4 back as 0, not as the dropped 1.
  description.set_num_features(6);
  EXPECT_FALSE(description.is_ignorable(4));
  EXPECT_TRUE(description.is_ignorable(1));
  EXPECT_EQ(exception_message([&] { description.set_num_features(-1); }),
            "number of features must be non-negative, not -1");
  EXPECT_EQ(description.get_num_features(), 6);
}

TEST(DataSetDescription, IgnoringBeyondTheEndGrowsTheFlags) {
  DataSetDescription description;
  description.set_ignorable(2);
  EXPECT_EQ(description.get_num_ignorable_flags(), 3u);
  description.set_num_features(10);
  description.set_ignorable(12);
  EXPECT_EQ(description.get_num_ignorable_flags(), 13u);
  description.set_ignorable(0);
  EXPECT_EQ(description.get_num_ignorable_flags(), 13u);
  EXPECT_EQ(description.get_ignored_columns(), (std::set<int>{0, 2, 12}));
  EXPECT_FALSE(description.is_ignorable(13));
  EXPECT_FALSE(description.is_ignorable(-1));
  EXPECT_EQ(exception_message([&] { description.set_ignorable(-3); }),
            "column to ignore must be non-negative, not -3");

  // The largest column costs no more than any other.
  description.set_ignorable(2147483647);
  EXPECT_EQ(description.get_num_ignorable_flags(), 2147483648u);
  EXPECT_TRUE(description.is_ignorable(2147483647));
}
