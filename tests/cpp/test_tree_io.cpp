#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "velmot/io/tree_io.h"

using Velmot::Node;

namespace {

typedef std::unique_ptr<Node<int>> Tree;

Tree read_one(std::istream& in) { return Tree(Velmot::read_tree_as_lisp<int>(in)); }

Tree read_text(const std::string& text) {
  std::istringstream in(text);
  return read_one(in);
}

// Every item of a tree, written out again.
std::string items(const Node<int>* node) {
  std::ostringstream out;
  out << "(label " << node->get_label() << " findex " << node->get_feature_index() << " threshold "
      << node->get_threshold();
  if (node->get_left() != nullptr) out << " left " << items(node->get_left());
  if (node->get_right() != nullptr) out << " right " << items(node->get_right());
  out << ")";
  return out.str();
}

// The kind and message of what call throws.
template <class Call>
std::string failure(Call call) {
  try {
    call();
  } catch (const Velmot::DataIOException& e) {
    return "DataIOException, line " + std::to_string(e.get_line_no()) + ": " + e.get_message();
  } catch (const Velmot::FileFormatException& e) {
    return "FileFormatException: " + e.get_message();
  } catch (const Velmot::Exception& e) {
    return "Exception: " + e.get_message();
  } catch (const std::string& bare) {
    return "string: " + bare;
  }
  return "nothing thrown";
}

}  // namespace

// The documented example tree is read through the module's predictors.
TEST(TreeText, ItemsAsRead) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      // Missing items take the text defaults (label 0), not the node's (-2).
      {"()", "(label 0 findex -1 threshold nan)"},
      // Numbers are the longest valid prefix, truncated toward zero.
      {"(label 1.9)", "(label 1 findex -1 threshold nan)"},
      {"(label -1.9)", "(label -1 findex -1 threshold nan)"},
      {"(label x)", "(label 0 findex -1 threshold nan)"},
      {"(findex 7abc)", "(label 0 findex 7 threshold nan)"},
      {"(threshold 2.5e1xyz)", "(label 0 findex -1 threshold 25)"},
      // A repeated item or subtree: the later one.
      {"(label 1 label 2)", "(label 2 findex -1 threshold nan)"},
      {"(left (label 4) left (label 5))",
       "(label 0 findex -1 threshold nan left (label 5 findex -1 threshold nan))"},
      // Parentheses need no space.
      {"(left(label 0)right(label 1)threshold 2 findex 0)",
       "(label 0 findex 0 threshold 2 left (label 0 findex -1 threshold nan) "
       "right (label 1 findex -1 threshold nan))"},
      // A number keyword swallows the closing parenthesis (read as 0); the
      // tokens then run out inside the tree, which ends it.
      {"(label 3 threshold)", "(label 3 findex -1 threshold 0)"},
      {"(label)", "(label 0 findex -1 threshold nan)"},
      {"(left (findex) label 2)", "(label 0 findex -1 threshold nan left (label 2 findex 0 threshold nan))"},
  };
  for (const auto& text_and_items : cases) {
    EXPECT_EQ(items(read_text(text_and_items.first).get()), text_and_items.second) << text_and_items.first;
  }
}

TEST(TreeText, EachCallReadsOneTreeAndLeavesTheRest) {
  std::istringstream in("  (label 1)\n\t(label 0))");
  EXPECT_EQ(read_one(in)->get_label(), 1);
  EXPECT_EQ(read_one(in)->get_label(), 0);
  // The stray ")" is left for the next call.
  EXPECT_EQ(failure([&] { read_one(in); }), "Exception: too many )s");
  std::istringstream blank(" \n\t ");
  EXPECT_EQ(read_one(blank), nullptr);
  std::istringstream nothing("");
  EXPECT_EQ(read_one(nothing), nullptr);
}

TEST(TreeText, EveryFailureHasItsKindAndMessage) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"(label 1", "string: unbalanced parentheses"},
      {"((label 1))", "Exception: unexpected token: ("},
      {"label 1 (label 2)", "FileFormatException: expected ( to start tree."},
      {"(bogus 1)", "Exception: unexpected token: bogus"},
      {"(left label 1)", "FileFormatException: expected ( to start tree."},
      {"(threshold (label 1))", "DataIOException, line -1: not all tokens used"},
      // Labels no int can hold.
      {"(label 1e12)", "Exception: label out of range: 1e12"},
      {"(label nan)", "Exception: label out of range: nan"},
  };
  for (const auto& text_and_failure : cases) {
    EXPECT_EQ(failure([&] { read_text(text_and_failure.first); }), text_and_failure.second);
  }
}

TEST(TreeText, TokensThatEndEarlyReachTheRemainingMessages) {
  // The tokenizer always closes a tree, so these come from direct calls.
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "Exception: no tree parsable in stream."},
      {{"(", "findex"}, "Exception: expected number after findex token"},
      {{"(", "left", "(", "threshold"}, "Exception: expected number after threshold token"}};
  Node<int> node;
  for (const auto& tokens_and_message : cases) {
    const std::vector<std::string>& tokens = tokens_and_message.first;
    EXPECT_EQ(failure([&] { Velmot::tokens_to_tree(tokens.begin(), tokens.end(), &node); }),
              tokens_and_message.second);
  }
  // Nothing was stored into the node on failure.
  EXPECT_EQ(node.get_label(), -2);
}

TEST(TreeText, DeepNestingNeitherRecursesNorLeaks) {
  const int depth = 200000;
  std::string text;
  for (int d = 0; d < depth; ++d) text += "(left ";
  text += "(label 7)";
  for (int d = 0; d < depth; ++d) text += ')';
  Tree root = read_text(text);
  const Node<int>* node = root.get();
  int levels = 0;
  while (node->get_left() != nullptr) {
    node = node->get_left();
    ++levels;
  }
  EXPECT_EQ(levels, depth);
  EXPECT_EQ(node->get_label(), 7);
  // The same nesting cut short fails cleanly (under the sanitizer build, a
  // leak of the nodes built so far would be reported).
  text.resize(text.size() - depth / 2);
  EXPECT_THROW(read_text(text), std::string);
}
