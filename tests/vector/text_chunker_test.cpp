// How ingested text is cut: sentence packing with overlap, and fixed slices.
#include "vector/text_chunker.h"

#include <gtest/gtest.h>

namespace vostra::data {
namespace {

using Chunks = std::vector<std::string>;

struct Case {
    const char* text;
    int32_t size, overlap;
    Chunks chunks;
};

TEST(SemanticChunks, PacksSentencesWithOverlapAndKeepsTheirWhiteSpace) {
    const Case cases[] = {
        {"", 500, 50, {}},
        {" \t\r\n", 500, 50, {}},
        // The second sentence starts at the blank after the first mark.
        {"A. B.", 2, 0, {"A.", " B."}},
        {"no marks at all", 5, 0, {"no marks at all"}},
        // "  \n" ends at its newline and holds nothing else: dropped.
        {"A.  \n B.", 100, 0, {"A. B."}},
        // 5 + 6 bytes fit in 12; the third sentence starts a chunk with the
        // last three bytes of the one before.
        {"aaaa. bbbb. cccc.", 12, 3, {"aaaa. bbbb.", "bb. cccc."}},
        // An overlap as long as the chunk, or negative, is none.
        {"aaaa. bbbb.", 5, 5, {"aaaa.", " bbbb."}},
        {"aaaa. bbbb.", 5, -1, {"aaaa.", " bbbb."}},
        {"Hi. A rather long sentence. Ok.", 10, 0, {"Hi.", " A rather long sentence.", " Ok."}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(semanticChunks(c.text, c.size, c.overlap), c.chunks) << c.text;
}

TEST(FixedLengthChunks, SlicesOverlapAndAlwaysEnd) {
    const Case cases[] = {
        {"", 500, 50, {}},
        {"abcd", 4, 1, {"abcd"}},
        {"abcdefghij", 4, 1, {"abcd", "defg", "ghij"}},
        {"abcdefgh", 4, 1, {"abcd", "defg", "gh"}},
        {"abcdefgh", 3, 0, {"abc", "def", "gh"}},
        // Settings that would never advance still end.
        {"abcdefgh", 4, 4, {"abcd", "efgh"}},
        {"abcdefgh", 4, 9, {"abcd", "efgh"}},
        {"abc", 0, 0, {"abc"}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(fixedLengthChunks(c.text, c.size, c.overlap), c.chunks)
            << c.text << " " << c.size << "/" << c.overlap;
}

}  // namespace
}  // namespace vostra::data
