#ifndef VELMOT_FUZZ_CORPUS_FILES_H
#define VELMOT_FUZZ_CORPUS_FILES_H

// The saved inputs of a fuzz target, for replaying them as ordinary tests:
// fuzz/corpus/<target>/ under the source tree (VELMOT_SOURCE_DIR).

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace VelmotFuzz {

inline std::filesystem::path corpus_directory(const std::string& target) {
  return std::filesystem::path(VELMOT_SOURCE_DIR) / "fuzz" / "corpus" / target;
}

// Sorted, so that test order and names are stable; empty when the
// directory is missing (the replay test checks that it is not).
inline std::vector<std::string> corpus_files(const std::string& target) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(corpus_directory(target), error)) {
    if (entry.is_regular_file()) files.push_back(entry.path().filename().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

inline std::string read_corpus_file(const std::string& target, const std::string& file) {
  std::ifstream in(corpus_directory(target) / file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A file name as a test name: letters, digits and underscores only.
inline std::string test_name(const std::string& file) {
  std::string name = file;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

}  // namespace VelmotFuzz

#endif
