#ifndef VELMOT_IO_DATASET_IO_H
#define VELMOT_IO_DATASET_IO_H

// Reader of data set description files: one command per line, words split at
// white space, the first word the keyword. Example:
//
//   label-type discrete-zero-onward
//   num-features 4
//   class-column 4
//   label 0 negative
//   label 1 positive
//   feature-name 0 age
//   ignore 3
//
// Blank lines are skipped, and so is every line containing "#" anywhere, even
// after a command: comments are whole lines. Lines are counted from 1, skipped
// ones included. Every failure is a DataIOException carrying the line at
// fault, except a class label given a second code, which is StringIntMap's
// own Exception. Reading stops at the first failure.

#include <istream>
#include <string>
#include <unordered_map>
#include <vector>

#include "velmot/dataset/dataset_description.h"

namespace Velmot {

class VelmotDescriptionReader {
public:
  typedef std::vector<std::string> Arguments;

  VelmotDescriptionReader();

  DataSetDescription read(std::istream& in) const;
  // Reads the description from the text itself, not from a file of that
  // name (read_velmot_description opens files). A file name passed here by
  // mistake fails loudly as an invalid command instead of silently giving
  // the defaults that a missing file gives.
  DataSetDescription read(const std::string& text) const;

  // Plain decimal digits only, no sign; "" gives 0. Accumulated modulo 2^32,
  // so a long digit string wraps around and may come out negative.
  int parse_int(int line, const std::string& text) const;

  // Rejects an unknown keyword or a wrong number of arguments, then runs the
  // keyword's handler.
  void handle_command(int line, DataSetDescription& description, const std::string& keyword,
                      const Arguments& arguments) const;

  void process_label_type(int line, DataSetDescription& description, const Arguments& arguments) const;
  void process_class_column(int line, DataSetDescription& description, const Arguments& arguments) const;
  void process_num_features(int line, DataSetDescription& description, const Arguments& arguments) const;
  void process_feature_name(int line, DataSetDescription& description, const Arguments& arguments) const;
  // Both leading arguments must parse as integers before the first is
  // compared with "nominal" or "continuous", so every line that parses has
  // no effect and every other fails in parse_int. Kept in this order.
  void process_feature(int line, DataSetDescription& description, const Arguments& arguments) const;
  // A column that wrapped around to a negative value is rejected with a
  // DataIOException rather than written outside the flags.
  void process_ignore(int line, DataSetDescription& description, const Arguments& arguments) const;
  void process_number_labels(int line, DataSetDescription& description, const Arguments& arguments) const;
  void process_label(int line, DataSetDescription& description, const Arguments& arguments) const;

  // Keyword -> number of arguments the command requires.
  std::unordered_map<std::string, int> commands;
};

// The description in the named file. A file that cannot be opened is not an
// error: it reads as empty and gives the default description.
DataSetDescription read_velmot_description(const std::string& path);

}  // namespace Velmot

#endif
