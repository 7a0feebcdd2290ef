#ifndef VELMOT_FUZZ_DESCRIPTION_INVARIANTS_H
#define VELMOT_FUZZ_DESCRIPTION_INVARIANTS_H

// What reading any text as a description file must satisfy, checked by the
// fuzz target and by the replay of its saved inputs.

#include <algorithm>
#include <string>

#include "velmot/dataset/dataset_description.h"
#include "velmot/defs/exception.h"
#include "velmot/io/dataset_io.h"

namespace VelmotFuzz {

// Reads `text`; returns "" when the outcome is a sound description or a
// library exception, else what went wrong. Any other exception escapes.
inline std::string description_reading_fault(const std::string& text) {
  static const Velmot::VelmotDescriptionReader reader;
  try {
    const Velmot::DataSetDescription description = reader.read(text);
    const size_t num_flags = description.get_num_ignorable_flags();
    if (description.get_num_features() < 0) return "negative feature count";
    if (description.get_class_column() < -1) return "class column below -1";
    if (num_flags < static_cast<size_t>(description.get_num_features())) return "fewer flags than features";
    for (const int column : description.get_ignored_columns()) {
      if (column < 0 || static_cast<size_t>(column) >= num_flags) return "ignored column outside the flags";
    }
  } catch (const Velmot::DataIOException& e) {
    const long num_lines = std::count(text.begin(), text.end(), '\n') + 1;
    if (e.get_line_no() < 1 || e.get_line_no() > num_lines) return "error on a line the text does not have";
  } catch (const Velmot::Exception&) {
  }
  return "";
}

}  // namespace VelmotFuzz

#endif
