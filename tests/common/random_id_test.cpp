#include "common/random_id.h"

#include <gtest/gtest.h>

#include <set>

namespace vostra {
namespace {

TEST(RandomHex, GivesLowercaseHexOfRequestedLengthWithoutRepeats) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        std::string id = randomHex(12);
        ASSERT_EQ(id.size(), 12u);
        EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 200u);
}

}  // namespace
}  // namespace vostra
