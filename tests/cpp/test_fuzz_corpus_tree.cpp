// Replays every saved input of the tree text reader's fuzz target as an
// ordinary test (under VELMOT_SANITIZE also with the sanitizers).

#include <gtest/gtest.h>

#include <string>

#include "../../fuzz/corpus_files.h"
#include "../../fuzz/tree_invariants.h"

namespace {

const char* const target = "tree";

class TreeCorpus : public testing::TestWithParam<std::string> {};

TEST_P(TreeCorpus, ReadsSoundlyOrFailsAsDocumented) {
  EXPECT_EQ(VelmotFuzz::tree_reading_fault(VelmotFuzz::read_corpus_file(target, GetParam())), "");
}

INSTANTIATE_TEST_SUITE_P(Saved, TreeCorpus, testing::ValuesIn(VelmotFuzz::corpus_files(target)),
                         [](const testing::TestParamInfo<std::string>& info) {
                           return VelmotFuzz::test_name(info.param);
                         });

TEST(TreeCorpusFiles, AreFound) { EXPECT_FALSE(VelmotFuzz::corpus_files(target).empty()); }

}  // namespace
