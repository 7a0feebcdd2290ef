// Replays every saved input of the description reader's fuzz target as an
// ordinary test (under VELMOT_SANITIZE also with the sanitizers).

#include <gtest/gtest.h>

#include <string>

#include "../../fuzz/corpus_files.h"
#include "../../fuzz/description_invariants.h"

namespace {

const char* const target = "description";

class DescriptionCorpus : public testing::TestWithParam<std::string> {};

TEST_P(DescriptionCorpus, ReadsSoundlyOrFailsWithALibraryException) {
  EXPECT_EQ(VelmotFuzz::description_reading_fault(VelmotFuzz::read_corpus_file(target, GetParam())), "");
}

INSTANTIATE_TEST_SUITE_P(Saved, DescriptionCorpus, testing::ValuesIn(VelmotFuzz::corpus_files(target)),
                         [](const testing::TestParamInfo<std::string>& info) {
                           return VelmotFuzz::test_name(info.param);
                         });

TEST(DescriptionCorpusFiles, AreFound) { EXPECT_FALSE(VelmotFuzz::corpus_files(target).empty()); }

}  // namespace
