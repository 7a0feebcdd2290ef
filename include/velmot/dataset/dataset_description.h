#ifndef VELMOT_DATASET_DATASET_DESCRIPTION_H
#define VELMOT_DATASET_DATASET_DESCRIPTION_H

// What the numbers of a data set mean: labeling kind, names of class labels
// and of nominal feature values with their integer codes, feature names,
// ignored columns, the label column and the feature count. A passive record,
// filled by the description file reader (velmot/io/dataset_io.h).

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "velmot/defs/labeling.h"

namespace Velmot {

// Two-way map between strings and integer codes. Only the string side is
// guarded: a string keeps its first code, but a code may be given to several
// strings, and then reads back as the string added last.
class StringIntMap {
public:
  StringIntMap() = default;

  // Accepts a pair already present; throws Exception when the label already
  // has a different code, naming the code it keeps.
  void add_label(const std::string& label, int id);

  // Absent strings and codes are an error (Exception naming what was asked),
  // never a default: a made-up code would silently mislabel data.
  int get_int_label(const std::string& label) const;
  const std::string& get_string_label(int id) const;

  bool contains(const std::string& label) const { return string_to_int.count(label) != 0; }
  bool contains(int id) const { return int_to_string.count(id) != 0; }

  // Number of strings (two strings sharing a code count twice).
  size_t size() const { return string_to_int.size(); }
  // Number of distinct codes.
  size_t num_codes() const { return int_to_string.size(); }
  // The distinct codes, ascending (for listing a map).
  std::vector<int> get_codes() const {
    std::vector<int> codes;
    codes.reserve(int_to_string.size());
    for (const auto& entry : int_to_string) codes.push_back(entry.first);
    std::sort(codes.begin(), codes.end());
    return codes;
  }

  friend bool operator==(const StringIntMap& a, const StringIntMap& b) {
    return a.string_to_int == b.string_to_int && a.int_to_string == b.int_to_string;
  }
  friend bool operator!=(const StringIntMap& a, const StringIntMap& b) { return !(a == b); }

private:
  std::unordered_map<std::string, int> string_to_int;
  std::unordered_map<int, std::string> int_to_string;
};

class DataSetDescription {
public:
  DataSetDescription() = default;

  void set_labeling(LabelingType labeling) { ltype = labeling; }
  LabelingType get_labeling() const { return ltype; }

  void add_label_pair(const std::string& label, int code) { label_map.add_label(label, code); }
  // Absent labels and codes throw Exception, as in StringIntMap.
  std::string get_string_label(int code) const { return label_map.get_string_label(code); }
  int get_int_label(const std::string& label) const { return label_map.get_int_label(label); }
  const StringIntMap& get_label_map() const { return label_map; }

  // Creates the feature's map on its first value.
  void add_nominal_feature(int feature, const std::string& value, int code);
  // A feature that is not nominal throws Exception; so do values and codes
  // that its map does not hold.
  const std::string& get_string_feature(int feature, int code) const;
  int get_int_feature(int feature, const std::string& value) const;
  // False for any index without a map, negative or beyond num_features too.
  bool is_nominal_feature(int feature) const { return feature_maps.count(feature) != 0; }

  void set_feature_name(int feature, const std::string& name) { feature_names[feature] = name; }
  // Names are optional: an unnamed feature reads back as "" (no error), so a
  // caller may ask for every index without checking first.
  std::string get_feature_name(int feature) const;
  // Every named feature, by ascending index.
  std::map<int, std::string> get_feature_names() const {
    return std::map<int, std::string>(feature_names.begin(), feature_names.end());
  }

  void set_class_column(int column) { class_column = column; }
  int get_class_column() const { return class_column; }

  // Sets the count and resizes the ignore flags to n (flags below n are
  // kept, the rest dropped). A negative n throws Exception.
  void set_num_features(int n);
  int get_num_features() const { return num_features; }

  // Beyond the end, the flags first grow to the larger of column + 1 and
  // num_features, new flags 0 (as the file reader's "ignore" does), so a
  // column may be ignored before the feature count is known. A negative
  // column throws Exception.
  void set_ignorable(int column);
  // False beyond the end of the flags, and for negative columns.
  bool is_ignorable(int column) const { return ignored.count(column) != 0; }
  // Length of the flag sequence: num_features, or more after set_ignorable
  // beyond it.
  size_t get_num_ignorable_flags() const { return num_ignorable_flags; }
  // The columns whose flag is set, ascending.
  const std::set<int>& get_ignored_columns() const { return ignored; }

  // Distinct class codes named so far: names sharing a code are one class.
  // Codes need not be contiguous, so this is not necessarily max code + 1.
  size_t get_num_classes() const { return label_map.num_codes(); }

  void set_number_labeling(bool number_labels) { number_labeling = number_labels; }
  bool is_number_labeling() const { return number_labeling; }

  friend bool operator==(const DataSetDescription& a, const DataSetDescription& b);
  friend bool operator!=(const DataSetDescription& a, const DataSetDescription& b) { return !(a == b); }

private:
  LabelingType ltype = DiscreteZeroOnward;
  StringIntMap label_map;
  std::unordered_map<int, StringIntMap> feature_maps;
  std::unordered_map<int, std::string> feature_names;
  // The ignore flags, kept sparse: a one-line file may declare 2^31
  // features or ignore column 2^31 - 1, and a dense sequence would then
  // allocate gigabytes to hold a handful of set flags.
  std::set<int> ignored;
  size_t num_ignorable_flags = 0;
  int class_column = -1;
  int num_features = 0;
  bool number_labeling = false;
};

}  // namespace Velmot

#endif
