#include "velmot/dataset/dataset_description.h"

#include <algorithm>
#include <string>

#include "velmot/defs/exception.h"

namespace Velmot {

void StringIntMap::add_label(const std::string& label, int id) {
  const auto found = string_to_int.find(label);
  if (found == string_to_int.end()) {
    string_to_int.emplace(label, id);
    int_to_string[id] = label;
    return;
  }
  if (found->second != id) {
    throw Exception("String label '" + label + "' already used for different numeric id " +
                    std::to_string(found->second));
  }
}

int StringIntMap::get_int_label(const std::string& label) const {
  const auto found = string_to_int.find(label);
  if (found == string_to_int.end()) throw Exception("unknown string label '" + label + "'");
  return found->second;
}

const std::string& StringIntMap::get_string_label(int id) const {
  const auto found = int_to_string.find(id);
  if (found == int_to_string.end()) throw Exception("unknown numeric label " + std::to_string(id));
  return found->second;
}

namespace {

const StringIntMap& nominal_map(const std::unordered_map<int, StringIntMap>& feature_maps, int feature) {
  const auto found = feature_maps.find(feature);
  if (found == feature_maps.end()) throw Exception("feature " + std::to_string(feature) + " is not nominal");
  return found->second;
}

}  // namespace

void DataSetDescription::add_nominal_feature(int feature, const std::string& value, int code) {
  feature_maps[feature].add_label(value, code);
}

const std::string& DataSetDescription::get_string_feature(int feature, int code) const {
  return nominal_map(feature_maps, feature).get_string_label(code);
}

int DataSetDescription::get_int_feature(int feature, const std::string& value) const {
  return nominal_map(feature_maps, feature).get_int_label(value);
}

std::string DataSetDescription::get_feature_name(int feature) const {
  const auto found = feature_names.find(feature);
  return found == feature_names.end() ? std::string() : found->second;
}

void DataSetDescription::set_num_features(int n) {
  if (n < 0) throw Exception("number of features must be non-negative, not " + std::to_string(n));
  num_features = n;
  num_ignorable_flags = static_cast<size_t>(n);
  ignored.erase(ignored.lower_bound(n), ignored.end());
}

void DataSetDescription::set_ignorable(int column) {
  if (column < 0) throw Exception("column to ignore must be non-negative, not " + std::to_string(column));
  const size_t index = static_cast<size_t>(column);
  if (index >= num_ignorable_flags) {
    num_ignorable_flags = std::max(index + 1, static_cast<size_t>(num_features));
  }
  ignored.insert(column);
}

bool operator==(const DataSetDescription& a, const DataSetDescription& b) {
  return a.ltype == b.ltype && a.label_map == b.label_map && a.feature_maps == b.feature_maps &&
         a.feature_names == b.feature_names && a.ignored == b.ignored &&
         a.num_ignorable_flags == b.num_ignorable_flags && a.class_column == b.class_column &&
         a.num_features == b.num_features && a.number_labeling == b.number_labeling;
}

}  // namespace Velmot
