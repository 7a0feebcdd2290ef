#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "velmot/dataset/dataset_description.h"
#include "velmot/defs/exception.h"
#include "velmot/io/dataset_io.h"

using namespace Velmot;

namespace {

const char* const example_file =
    "label-type discrete-zero-onward\n"
    "num-features 4\n"
    "class-column 4\n"
    "label 0 negative\n"
    "label 1 positive\n"
    "feature-name 0 age\n"
    "ignore 3\n";

DataSetDescription read_text(const std::string& text) {
  std::istringstream in(text);
  return VelmotDescriptionReader().read(in);
}

// "line N: message" of the DataIOException that call throws, or
// "Exception: message" of another library exception.
template <class Call>
std::string error_of(Call call) {
  try {
    call();
  } catch (const DataIOException& e) {
    return "line " + std::to_string(e.get_line_no()) + ": " + e.get_message();
  } catch (const Exception& e) {
    return "Exception: " + e.get_message();
  }
  return "no exception";
}

}  // namespace

TEST(DescriptionReader, ReadsTheExampleFileByPathAndAsText) {
  const DataSetDescription description = read_text(example_file);
  EXPECT_EQ(description.get_num_features(), 4);
  EXPECT_EQ(description.get_class_column(), 4);
  EXPECT_EQ(description.get_string_label(0), "negative");
  EXPECT_EQ(description.get_int_label("positive"), 1);
  EXPECT_EQ(description.get_feature_name(0), "age");
  EXPECT_EQ(description.get_ignored_columns(), std::set<int>{3});

  // Tabs, surrounding blanks, CRLF line ends and a missing final newline
  // change nothing.
  EXPECT_EQ(read_text("  label-type\tdiscrete-zero-onward\r\nnum-features  4 \r\n\tclass-column 4\n"
                      "label 0 negative\nlabel 1 positive\nfeature-name 0 age\nignore 3"),
            description);

  const std::string path = "/tmp/velmot_description_" + std::to_string(getpid());
  std::ofstream(path) << example_file;
  EXPECT_EQ(read_velmot_description(path), description);
  const VelmotDescriptionReader reader;
  EXPECT_EQ(reader.read(std::string(example_file)), description);
  // The string overload reads text: a path given to it is a command.
  EXPECT_EQ(error_of([&] { reader.read(path); }), "line 1: invalid command: " + path);
  std::remove(path.c_str());

  // Empty or missing input gives the defaults.
  EXPECT_EQ(read_text(""), DataSetDescription());
  EXPECT_EQ(read_text("\n \n\t\n# only a comment\n"), DataSetDescription());
  EXPECT_EQ(read_velmot_description("/nonexistent/velmot/description.txt"), DataSetDescription());
}

TEST(DescriptionReader, ErrorsNameTheLineAndTheFault) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"label-type Regression", "line 1: invalid label type: Regression"},
      // Skipped lines still count: the bad command is on line 5.
      {"# header\n\nlabel 0 no\n   \n bogus 1\nlabel 1 yes\n", "line 5: invalid command: bogus"},
      // Keywords are case-sensitive.
      {"\n\nLabel 0 no", "line 3: invalid command: Label"},
      {"num-features 3 4", "line 1: num-features: 2 arguments given but 1 required."},
      {"\nnumber-labels x", "line 2: number-labels: 1 arguments given but 0 required."},
      {"# c\nlabel 0", "line 2: label: 1 arguments given but 2 required."},
      {"ignore", "line 1: ignore: 0 arguments given but 1 required."},
      {"\n\nclass-column -1", "line 3: error parsing int from '-1'"},
      // Out-of-range values reached by wrap-around (4294967294 is -2).
      {"class-column 4294967294",
       "line 1: class-column must be non-negative (label for instances are found in a column) or -1 "
       "(labels are stored elsewhere)4294967294"},
      {"num-features 2147483648", "line 1: invalid value for num-features: 2147483648"},
      {"\nignore 4294967295", "line 2: invalid column for ignore: 4294967295"},
      {"label x one", "line 1: error parsing int from 'x'"},
      {"feature-name a b", "line 1: error parsing int from 'a'"},
      // A conflicting code is the label map's own error, without a line number.
      {"label 0 no\n\nlabel 1 no\n", "Exception: String label 'no' already used for different numeric id 0"},
      // Feature lines parse both numbers first: the type words never get past.
      {"feature nominal 0 red", "line 1: error parsing int from 'nominal'"},
      {"feature 1 x y", "line 1: error parsing int from 'x'"},
  };
  for (const auto& text_and_error : cases) {
    EXPECT_EQ(error_of([&] { read_text(text_and_error.first); }), text_and_error.second);
  }
}

TEST(DescriptionReader, LabelTypesCommentsAndRepeatedCommands) {
  EXPECT_EQ(read_text("label-type plus-one-minus-one").get_labeling(), PlusOneMinusOne);
  const DataSetDescription nonnegative = read_text("label-type regression\nlabel-type discrete-nonnegative");
  EXPECT_EQ(nonnegative.get_labeling(), DiscreteZeroOnward);
  EXPECT_TRUE(nonnegative.is_number_labeling()) << "a later label type does not clear number labeling";
  const DataSetDescription regression = read_text("label-type regression\n");
  EXPECT_EQ(regression.get_labeling(), Regression);
  EXPECT_TRUE(regression.is_number_labeling());
  EXPECT_TRUE(read_text("number-labels").is_number_labeling());

  // The "#" hides the command before it.
  EXPECT_EQ(read_text("label 1 yes # a comment\n").get_num_classes(), 0u);
  EXPECT_EQ(read_text("label 1 yes#\n"), DataSetDescription());
  // Digits in the first two places of a feature line: accepted, with no effect.
  EXPECT_EQ(read_text("feature 1 2 colour"), DataSetDescription());

  const DataSetDescription labels =
      read_text("label 2 two\nlabel 2 deux\nfeature-name 3 height\nfeature-name 3 size\nfeature-name 00 x");
  EXPECT_EQ(labels.get_int_label("two"), 2);
  EXPECT_EQ(labels.get_string_label(2), "deux");
  EXPECT_EQ(labels.get_feature_name(3), "size");
  EXPECT_EQ(labels.get_feature_name(0), "x");

  // Columns may be ignored before the feature count is set, and twice.
  const DataSetDescription early = read_text("ignore 2\nnum-features 6\nignore 5\nignore 5\n");
  EXPECT_EQ(early.get_num_ignorable_flags(), 6u);
  EXPECT_EQ(early.get_ignored_columns(), (std::set<int>{2, 5}));
}

TEST(DescriptionReader, ParseIntAcceptsDigitsOnlyAndWrapsAround) {
  const VelmotDescriptionReader reader;
  EXPECT_EQ(reader.parse_int(1, ""), 0);
  EXPECT_EQ(reader.parse_int(1, "0042"), 42);
  EXPECT_EQ(reader.parse_int(1, "2147483648"), -2147483647 - 1);
  EXPECT_EQ(reader.parse_int(1, "4294967296"), 0);
  // 10^20 mod 2^32 = 1661992960.
  EXPECT_EQ(reader.parse_int(1, "100000000000000000000"), 1661992960);
  for (const char* bad : {"-1", "+1", "1a", " 1", "1.5"}) {
    EXPECT_EQ(error_of([&] { reader.parse_int(9, bad); }), std::string("line 9: error parsing int from '") + bad + "'");
  }
  // 4294967295 wraps to -1, which class-column accepts.
  EXPECT_EQ(read_text("class-column 4294967295").get_class_column(), -1);
  // The largest feature count is cheap to declare.
  EXPECT_EQ(read_text("num-features 2147483647").get_num_features(), 2147483647);
}
