#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "velmot/io/tree_io.h"

using Velmot::Node;

namespace {

std::unique_ptr<Node<int>> read_one(std::istream& in) {
  return std::unique_ptr<Node<int>>(Velmot::read_tree_as_lisp<int>(in));
}

// Every item of a tree, written out again.
std::string items(const Node<int>* node) {
  std::ostringstream out;
  out << "(label " << node->get_label() << " findex " << node->get_feature_index() << " threshold "
      << node->get_threshold();
  if (node->get_left() != nullptr) out << " left " << items(node->get_left());
  if (node->get_right() != nullptr) out << " right " << items(node->get_right());
  return out.str() + ")";
}

// The tree read from `text` as items, or the kind and message of the failure.
std::string read(const std::string& text) {
  std::istringstream in(text);
  try {
    return items(read_one(in).get());
  } catch (const Velmot::DataIOException& e) {
    return "DataIOException, line " + std::to_string(e.get_line_no()) + ": " + e.get_message();
  } catch (const Velmot::FileFormatException& e) {
    return "FileFormatException: " + e.get_message();
  } catch (const Velmot::Exception& e) {
    return "Exception: " + e.get_message();
  } catch (const std::string& bare) {
    return "string: " + bare;
  }
}

TEST(TreeText, ItemsAndFailuresAsRead) {
  const std::string bare = " findex -1 threshold nan)";
  const std::vector<std::pair<std::string, std::string>> cases = {
      // Missing items take the text defaults (label 0), not the node's (-2).
      {"()", "(label 0" + bare},
      // Numbers are the longest valid prefix, truncated toward zero.
      {"(label -1.9)", "(label -1" + bare},
      {"(label x)", "(label 0" + bare},
      {"(findex 7abc)", "(label 0 findex 7 threshold nan)"},
      {"(threshold 2.5e1xyz)", "(label 0 findex -1 threshold 25)"},
      // A repeated item or subtree: the later one.
      {"(label 1 label 2)", "(label 2" + bare},
      {"(left (label 4) left (label 5))", "(label 0" + bare.substr(0, bare.size() - 1) + " left (label 5" + bare + ")"},
      {"(left(label 0)right(label 1)threshold 2 findex 0)",
       "(label 0 findex 0 threshold 2 left (label 0" + bare + " right (label 1" + bare + ")"},
      // A number keyword swallows the closing parenthesis (read as 0).
      {"(label 3 threshold)", "(label 3 findex -1 threshold 0)"},
      {"(label 1", "string: unbalanced parentheses"},
      {"((label 1))", "Exception: unexpected token: ("},
      {"label 1 (label 2)", "FileFormatException: expected ( to start tree."},
      {"(bogus 1)", "Exception: unexpected token: bogus"},
      {"(threshold (label 1))", "DataIOException, line -1: not all tokens used"},
      {"(label 1e12)", "Exception: label out of range: 1e12"},
      {"(label nan)", "Exception: label out of range: nan"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(read(text), expected) << text;
}

TEST(TreeText, EachCallReadsOneTreeAndLeavesTheRest) {
  std::istringstream in("  (label 1)\n\t(label 0))");
  EXPECT_EQ(read_one(in)->get_label(), 1);
  EXPECT_EQ(read_one(in)->get_label(), 0);
  EXPECT_THROW(read_one(in), Velmot::Exception);  // the stray ")"
  std::istringstream blank(" \n\t ");
  EXPECT_EQ(read_one(blank), nullptr);
}

}  // namespace
