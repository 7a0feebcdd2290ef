// The description file reader and the description it fills.

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
    "label-type discrete-zero-onward\nnum-features 4\nclass-column 4\nlabel 0 negative\nlabel 1 positive\n"
    "feature-name 0 age\nignore 3\n";

DataSetDescription read_text(const std::string& text) {
  std::istringstream in(text);
  return VelmotDescriptionReader().read(in);
}

// "line N: message" of a DataIOException, "Exception: message" of another.
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

TEST(DescriptionReader, ReadsTheExampleFileByPathAndAsText) {
  const DataSetDescription description = read_text(example_file);
  EXPECT_EQ(description.get_num_features(), 4);
  EXPECT_EQ(description.get_class_column(), 4);
  EXPECT_EQ(description.get_string_label(0), "negative");
  EXPECT_EQ(description.get_int_label("positive"), 1);
  EXPECT_EQ(description.get_feature_name(0), "age");
  EXPECT_EQ(description.get_ignored_columns(), std::set<int>{3});
  // Tabs, blanks, CRLF line ends and no final newline change nothing.
  EXPECT_EQ(read_text("  label-type\tdiscrete-zero-onward\r\nnum-features  4 \r\n\tclass-column 4\n"
                      "label 0 negative\nlabel 1 positive\nfeature-name 0 age\nignore 3"),
            description);
  const std::string path = "/tmp/velmot_description_" + std::to_string(getpid());
  std::ofstream(path) << example_file;
  EXPECT_EQ(read_velmot_description(path), description);
  std::remove(path.c_str());
  EXPECT_EQ(read_text("\n \n\t\n# only a comment\n"), DataSetDescription());
  EXPECT_EQ(read_velmot_description("/nonexistent/velmot/description.txt"), DataSetDescription());
  // Codes repeat under new names (the last name wins), and the largest
  // column to ignore costs no more than any other.
  const DataSetDescription repeated = read_text("label 2 two\nlabel 2 deux\nnum-features 6\nignore 2147483647");
  EXPECT_EQ(repeated.get_int_label("two"), 2);
  EXPECT_EQ(repeated.get_string_label(2), "deux");
  EXPECT_EQ(repeated.get_num_classes(), 1u);
  EXPECT_TRUE(repeated.is_ignorable(2147483647));
}

TEST(DescriptionReader, ErrorsNameTheLineAndTheFault) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      // Skipped lines still count.
      {"# header\n\nlabel 0 no\n   \n bogus 1\nlabel 1 yes\n", "line 5: invalid command: bogus"},
      {"# c\nlabel 0", "line 2: label: 1 arguments given but 2 required."},
      {"\n\nclass-column -1", "line 3: error parsing int from '-1'"},
      {"feature nominal 0 red", "line 1: error parsing int from 'nominal'"},
      // Out-of-range values reached by wrap-around (4294967294 is -2).
      {"class-column 4294967294",
       "line 1: class-column must be non-negative (label for instances are found in a column) or -1 "
       "(labels are stored elsewhere)4294967294"},
      {"num-features 2147483648", "line 1: invalid value for num-features: 2147483648"},
      {"\nignore 4294967295", "line 2: invalid column for ignore: 4294967295"},
      {"label 0 no\n\nlabel 1 no\n", "Exception: String label 'no' already used for different numeric id 0"},
  };
  for (const auto& [text, error] : cases) EXPECT_EQ(error_of([&] { read_text(text); }), error) << text;
  // Digits only, wrapping around modulo 2^32.
  const VelmotDescriptionReader reader;
  EXPECT_EQ(reader.parse_int(1, "2147483648"), -2147483647 - 1);
  EXPECT_EQ(reader.parse_int(1, "100000000000000000000"), 1661992960);
  EXPECT_EQ(read_text("class-column 4294967295").get_class_column(), -1);
  for (const char* bad : {"+1", "1a", " 1", "1.5"}) EXPECT_THROW(reader.parse_int(9, bad), DataIOException);
}

}  // namespace
