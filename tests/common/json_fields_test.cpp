#include "common/json_fields.h"

#include <gtest/gtest.h>

namespace vostra {
namespace {

TEST(ReadField, AssignsOnlyPresentKeys) {
    int port = 8892;
    std::string name = "kept";
    nlohmann::json doc = {{"port", 9000}};
    readField(doc, "port", port);
    readField(doc, "name", name);
    EXPECT_EQ(port, 9000);
    EXPECT_EQ(name, "kept");
}

TEST(ReadField, WrongTypeThrowsTypeError) {
    int port = 0;
    EXPECT_THROW(readField(nlohmann::json{{"port", "80"}}, "port", port),
                 nlohmann::json::type_error);
}

}  // namespace
}  // namespace vostra
