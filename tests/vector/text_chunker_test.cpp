// How ingested text is cut: sentence packing with overlap, and fixed slices.
#include "vector/text_chunker.h"

#include <gtest/gtest.h>

namespace vostra::data {
namespace {

using Chunks = std::vector<std::string>;

TEST(SemanticChunks, EmptyOrBlankTextGivesNoChunks) {
    EXPECT_TRUE(semanticChunks("", 500, 50).empty());
    EXPECT_TRUE(semanticChunks(" \t\r\n", 500, 50).empty());
    EXPECT_TRUE(fixedLengthChunks("", 500, 50).empty());
}

TEST(SemanticChunks, KeepsWhitespaceInsideSentences) {
    // The second sentence starts at the blank after the first mark.
    EXPECT_EQ(semanticChunks("A. B.", 2, 0), (Chunks{"A.", " B."}));
}

TEST(SemanticChunks, TextWithoutMarksIsOneSentence) {
    EXPECT_EQ(semanticChunks("no marks at all", 5, 0), (Chunks{"no marks at all"}));
}

TEST(SemanticChunks, DropsSentencesOfWhitespaceOnly) {
    // "  \n" ends at its newline and holds nothing else.
    EXPECT_EQ(semanticChunks("A.  \n B.", 100, 0), (Chunks{"A. B."}));
}

TEST(SemanticChunks, PacksSentencesAndCarriesTheOverlap) {
    // 5 + 6 bytes fit in 12; the third sentence starts a chunk with the
    // last three bytes of the one before.
    EXPECT_EQ(semanticChunks("aaaa. bbbb. cccc.", 12, 3), (Chunks{"aaaa. bbbb.", "bb. cccc."}));
}

TEST(SemanticChunks, OverlapAsLongAsTheChunkIsDropped) {
    EXPECT_EQ(semanticChunks("aaaa. bbbb.", 5, 5), (Chunks{"aaaa.", " bbbb."}));
    EXPECT_EQ(semanticChunks("aaaa. bbbb.", 5, -1), (Chunks{"aaaa.", " bbbb."}));
}

TEST(SemanticChunks, SentenceLongerThanTheChunkSizeStandsAlone) {
    EXPECT_EQ(semanticChunks("Hi. A rather long sentence. Ok.", 10, 0),
              (Chunks{"Hi.", " A rather long sentence.", " Ok."}));
}

TEST(FixedLengthChunks, TextOfExactlyOneChunkGivesOne) {
    EXPECT_EQ(fixedLengthChunks("abcd", 4, 1), (Chunks{"abcd"}));
}

TEST(FixedLengthChunks, SlicesOverlapAndTheLastEndsAtTheText) {
    EXPECT_EQ(fixedLengthChunks("abcdefghij", 4, 1), (Chunks{"abcd", "defg", "ghij"}));
    EXPECT_EQ(fixedLengthChunks("abcdefgh", 4, 1), (Chunks{"abcd", "defg", "gh"}));
    EXPECT_EQ(fixedLengthChunks("abcdefgh", 3, 0), (Chunks{"abc", "def", "gh"}));
}

TEST(FixedLengthChunks, SettingsThatNeverAdvanceStillEnd) {
    EXPECT_EQ(fixedLengthChunks("abcdefgh", 4, 4), (Chunks{"abcd", "efgh"}));
    EXPECT_EQ(fixedLengthChunks("abcdefgh", 4, 9), (Chunks{"abcd", "efgh"}));
    EXPECT_EQ(fixedLengthChunks("abc", 0, 0), (Chunks{"abc"}));
}

}  // namespace
}  // namespace vostra::data
