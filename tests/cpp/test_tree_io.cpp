#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>
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

// The message of the library exception of type E that call throws.
template <class E, class Call>
std::string failure(Call call) {
  try {
    call();
  } catch (const E& e) {
    return e.get_message();
  }
  return "<no " + std::string(typeid(E).name()) + ">";
}

template <class E>
std::string library_failure(const std::string& text) {
  return failure<E>([&] { read_text(text); });
}

}  // namespace

// The documented example tree is read through the module's predictors.
TEST(TreeText, MissingItemsTakeTheTextDefaultsNotTheNodeDefaults) {
  Tree empty = read_text("()");
  EXPECT_EQ(empty->get_label(), 0);  // not -2
  EXPECT_EQ(empty->get_feature_index(), -1);
  EXPECT_TRUE(std::isnan(empty->get_threshold()));
  EXPECT_TRUE(empty->is_leaf());
}

TEST(TreeText, NumbersAreTheLongestValidPrefixTruncatedTowardZero) {
  EXPECT_EQ(read_text("(label 1.9)")->get_label(), 1);
  EXPECT_EQ(read_text("(label -1.9)")->get_label(), -1);
  EXPECT_EQ(read_text("(label x)")->get_label(), 0);
  EXPECT_EQ(read_text("(findex 7abc)")->get_feature_index(), 7);
  EXPECT_EQ(read_text("(threshold 2.5e1xyz)")->get_threshold(), 25.0);
  // A repeated item keeps the later value.
  EXPECT_EQ(read_text("(label 1 label 2)")->get_label(), 2);
}

TEST(TreeText, ParenthesesNeedNoSpaceAndAReplacedSubtreeIsTheLaterOne) {
  Tree tight = read_text("(left(label 0)right(label 1)threshold 2 findex 0)");
  EXPECT_EQ(tight->get_left()->get_label(), 0);
  EXPECT_EQ(tight->get_right()->get_label(), 1);
  EXPECT_EQ(tight->get_threshold(), 2.0);
  EXPECT_EQ(tight->get_feature_index(), 0);
  Tree replaced = read_text("(left (label 4) left (label 5))");
  EXPECT_EQ(replaced->get_left()->get_label(), 5);
}

TEST(TreeText, EachCallReadsOneTreeAndLeavesTheRest) {
  std::istringstream in("  (label 1)\n\t(label 0))");
  EXPECT_EQ(read_one(in)->get_label(), 1);
  EXPECT_EQ(read_one(in)->get_label(), 0);
  // The stray ")" is left for the next call.
  EXPECT_EQ(failure<Velmot::Exception>([&] { read_one(in); }), "too many )s");
  std::istringstream blank(" \n\t ");
  EXPECT_EQ(read_one(blank), nullptr);
  std::istringstream nothing("");
  EXPECT_EQ(read_one(nothing), nullptr);
}

TEST(TreeText, EveryFailureHasItsKindAndMessage) {
  try {
    read_text("(label 1");
    FAIL();
  } catch (const std::string& bare) {
    EXPECT_EQ(bare, "unbalanced parentheses");
  }
  EXPECT_EQ(library_failure<Velmot::Exception>("((label 1))"), "unexpected token: (");
  EXPECT_EQ(library_failure<Velmot::FileFormatException>("label 1 (label 2)"), "expected ( to start tree.");
  EXPECT_EQ(library_failure<Velmot::Exception>("(bogus 1)"), "unexpected token: bogus");
  EXPECT_EQ(library_failure<Velmot::FileFormatException>("(left label 1)"), "expected ( to start tree.");
  try {
    read_text("(threshold (label 1))");
    FAIL();
  } catch (const Velmot::DataIOException& e) {
    EXPECT_EQ(e.get_line_no(), -1);
    EXPECT_EQ(e.get_message(), "not all tokens used");
  }
}

TEST(TreeText, TokensThatEndEarlyReachTheRemainingMessages) {
  // The tokenizer always closes a tree, so these come from direct calls.
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "no tree parsable in stream."},
      {{"(", "findex"}, "expected number after findex token"},
      {{"(", "left", "(", "threshold"}, "expected number after threshold token"}};
  Node<int> node;
  for (const auto& tokens_and_message : cases) {
    const std::vector<std::string>& tokens = tokens_and_message.first;
    EXPECT_EQ(failure<Velmot::Exception>([&] { Velmot::tokens_to_tree(tokens.begin(), tokens.end(), &node); }),
              tokens_and_message.second);
  }
  // Nothing was stored into the node on failure.
  EXPECT_EQ(node.get_label(), -2);
}

TEST(TreeText, ANumberKeywordSwallowingTheClosingParenthesisEndsTheTree) {
  // The ")" becomes the number (0); the tokens then run out inside the tree.
  Tree root = read_text("(label 3 threshold)");
  EXPECT_EQ(root->get_label(), 3);
  EXPECT_EQ(root->get_threshold(), 0.0);
  EXPECT_EQ(read_text("(label)")->get_label(), 0);
  Tree nested = read_text("(left (findex) label 2)");
  EXPECT_EQ(nested->get_left()->get_feature_index(), 0);
}

TEST(TreeText, LabelsNoIntCanHoldAreRefused) {
  EXPECT_EQ(library_failure<Velmot::Exception>("(label 1e12)"), "label out of range: 1e12");
  EXPECT_EQ(library_failure<Velmot::Exception>("(label nan)"), "label out of range: nan");
}

TEST(TreeText, DeepNestingNeitherRecursesNorLeaks) {
  const int depth = 200000;
  std::string text;
  for (int d = 0; d < depth; ++d) text += "(left ";
  text += "(label 7)";
  for (int d = 0; d < depth; ++d) text += ")";
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
