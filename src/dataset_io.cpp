#include "velmot/io/dataset_io.h"

#include <cstdint>
#include <fstream>
#include <sstream>

#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"

namespace Velmot {

VelmotDescriptionReader::VelmotDescriptionReader()
    : commands{{"label-type", 1}, {"class-column", 1}, {"num-features", 1},  {"feature-name", 2},
               {"feature", 3},    {"ignore", 1},       {"number-labels", 0}, {"label", 2}} {}

DataSetDescription VelmotDescriptionReader::read(std::istream& in) const {
  DataSetDescription description;
  int line_no = 0;
  std::string line;
  while (in.good()) {
    // Line numbers are ints; a file of more than 2^31 - 1 lines would
    // overflow the count instead of naming the line at fault.
    if (line_no == int32_max) throw DataIOException(line_no, "too many lines");
    ++line_no;
    std::getline(in, line);
    if (line.find('#') != std::string::npos) continue;

    std::istringstream words(line);
    std::string keyword;
    if (!(words >> keyword)) continue;

    Arguments arguments;
    for (std::string word; words >> word;) arguments.push_back(word);
    handle_command(line_no, description, keyword, arguments);
  }
  return description;
}

DataSetDescription VelmotDescriptionReader::read(const std::string& text) const {
  std::istringstream in(text);
  return read(in);
}

int VelmotDescriptionReader::parse_int(int line, const std::string& text) const {
  // Unsigned, so that wrapping around is defined rather than signed overflow.
  uint32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') throw DataIOException(line, "error parsing int from '" + text + "'");
    value = value * 10u + static_cast<uint32_t>(c - '0');
  }
  return static_cast<int32_t>(value);
}

void VelmotDescriptionReader::handle_command(int line, DataSetDescription& description, const std::string& keyword,
                                             const Arguments& arguments) const {
  const auto command = commands.find(keyword);
  if (command == commands.end()) throw DataIOException(line, "invalid command: " + keyword);
  if (arguments.size() != static_cast<size_t>(command->second)) {
    throw DataIOException(line, keyword + ": " + std::to_string(arguments.size()) + " arguments given but " +
                                    std::to_string(command->second) + " required.");
  }

  if (keyword == "label-type") {
    process_label_type(line, description, arguments);
  } else if (keyword == "ignore") {
    process_ignore(line, description, arguments);
  } else if (keyword == "class-column") {
    process_class_column(line, description, arguments);
  } else if (keyword == "num-features") {
    process_num_features(line, description, arguments);
  } else if (keyword == "label") {
    process_label(line, description, arguments);
  } else if (keyword == "feature") {
    process_feature(line, description, arguments);
  } else if (keyword == "feature-name") {
    process_feature_name(line, description, arguments);
  } else if (keyword == "number-labels") {
    process_number_labels(line, description, arguments);
  }
}

void VelmotDescriptionReader::process_label_type(int line, DataSetDescription& description,
                                                 const Arguments& arguments) const {
  const std::string& kind = arguments.at(0);
  if (kind == "plus-one-minus-one") {
    description.set_labeling(PlusOneMinusOne);
  } else if (kind == "discrete-zero-onward" || kind == "discrete-nonnegative") {
    description.set_labeling(DiscreteZeroOnward);
  } else if (kind == "regression") {
    description.set_labeling(Regression);
    description.set_number_labeling(true);
  } else {
    throw DataIOException(line, "invalid label type: " + kind);
  }
}

void VelmotDescriptionReader::process_class_column(int line, DataSetDescription& description,
                                                   const Arguments& arguments) const {
  const int column = parse_int(line, arguments.at(0));
  if (column < -1) {
    throw DataIOException(line,
                          "class-column must be non-negative (label for instances are found in a column) "
                          "or -1 (labels are stored elsewhere)" +
                              arguments[0]);
  }
  description.set_class_column(column);
}

void VelmotDescriptionReader::process_num_features(int line, DataSetDescription& description,
                                                   const Arguments& arguments) const {
  const int count = parse_int(line, arguments.at(0));
  if (count < 0) throw DataIOException(line, "invalid value for num-features: " + arguments[0]);
  description.set_num_features(count);
}

void VelmotDescriptionReader::process_feature_name(int line, DataSetDescription& description,
                                                   const Arguments& arguments) const {
  const int index = parse_int(line, arguments.at(0));
  description.set_feature_name(index, arguments.at(1));
}

void VelmotDescriptionReader::process_feature(int line, DataSetDescription& description,
                                              const Arguments& arguments) const {
  const std::string& kind = arguments.at(0);
  const int index = parse_int(line, kind);
  const int code = parse_int(line, arguments.at(1));
  if (kind == "nominal") {
    description.add_nominal_feature(index, arguments.at(2), code);
  } else if (kind == "continuous") {
    throw DataIOException(line, "invalid feature type: " + kind);
  }
}

void VelmotDescriptionReader::process_ignore(int line, DataSetDescription& description,
                                             const Arguments& arguments) const {
  const int column = parse_int(line, arguments.at(0));
  if (column < 0) throw DataIOException(line, "invalid column for ignore: " + arguments[0]);
  description.set_ignorable(column);
}

void VelmotDescriptionReader::process_number_labels(int, DataSetDescription& description, const Arguments&) const {
  description.set_number_labeling(true);
}

void VelmotDescriptionReader::process_label(int line, DataSetDescription& description,
                                            const Arguments& arguments) const {
  const int code = parse_int(line, arguments.at(0));
  description.add_label_pair(arguments.at(1), code);
}

DataSetDescription read_velmot_description(const std::string& path) {
  std::ifstream in(path);
  return VelmotDescriptionReader().read(in);
}

}  // namespace Velmot
