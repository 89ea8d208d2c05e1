// Log triage: which lines count, what their signatures keep and drop, and
// the grouping and ranking of a fixed log.
#include <gtest/gtest.h>

#include "sandbox/log_triage.h"

namespace vostra::sandbox {
namespace {

TEST(LogTriage, SeverityComesFromWordsNotFromFlagsOrTallies) {
    EXPECT_EQ(lineSeverity("src/a.cpp:3:1: error: expected ';'"), "error");
    EXPECT_EQ(lineSeverity("FATAL: out of memory"), "error");
    EXPECT_EQ(lineSeverity("ValueError: bad value"), "error");
    EXPECT_EQ(lineSeverity("java.lang.NullPointerException"), "error");
    EXPECT_EQ(lineSeverity("/usr/bin/ld: main.o: undefined reference to `f()'"), "error");
    EXPECT_EQ(lineSeverity("Segmentation fault (core dumped)"), "error");
    EXPECT_EQ(lineSeverity("a.c:1: warning: unused variable 'x'"), "warning");
    EXPECT_EQ(lineSeverity("warning and then an error"), "error");

    EXPECT_EQ(lineSeverity("g++ -Werror -Wall -c a.cpp"), "");
    EXPECT_EQ(lineSeverity("pytest --fail-fast"), "");
    EXPECT_EQ(lineSeverity("Build finished: 0 errors, 0 warnings"), "");
    EXPECT_EQ(lineSeverity("no errors found"), "");
    EXPECT_EQ(lineSeverity("terror and mirrors"), "");
    EXPECT_EQ(lineSeverity(""), "");
}

TEST(LogTriage, SignaturesDropWhatChangesBetweenOccurrences) {
    EXPECT_EQ(lineSignature("/home/ci/src/a.cpp:12:5: error: 'x' was not declared"),
              "<path>:<n>:<n>: error: 'x' was not declared");
    EXPECT_EQ(lineSignature("src/b.cpp:7:1: error: 'x' was not declared"),
              "<path>:<n>:<n>: error: 'x' was not declared");
    EXPECT_EQ(lineSignature("segfault at 0x7ffd1234abcd in worker"), "segfault at <addr> in worker");
    EXPECT_EQ(lineSignature("job 3f2a9c1d4e failed after 1500 ms"), "job <id> failed after <n> ms");
    EXPECT_EQ(lineSignature("request 123e4567-e89b-12d3-a456-426614174000 failed"),
              "request <id> failed");
    EXPECT_EQ(lineSignature("  two   spaces\tand tab  "), "two spaces and tab");
    // Words that only look like ids or paths stay.
    EXPECT_EQ(lineSignature("and/or deadline exceeded"), "and/or deadline exceeded");
}

constexpr const char* kBuildLog =
    "[1/4] Building CXX object a.o\n"                                  // 1
    "\x1b[31msrc/a.cpp:10:3: error: 'foo' was not declared\x1b[0m\n"  // 2
    "   10 |   foo();\n"                                               // 3
    "src/a.cpp:22:9: warning: unused variable 'n'\n"                   // 4
    "[2/4] Building CXX object b.o\n"                                  // 5
    "src/b.cpp:4:3: error: 'foo' was not declared\n"                   // 6
    "src/b.cpp:8:1: warning: unused variable 'n'\n"                    // 7
    "src/c.cpp:9:1: warning: unused variable 'n'\n"                    // 8
    "/usr/bin/ld: a.o: undefined reference to `bar()'\r\n"             // 9
    "collect2: error: ld returned 1 exit status\n"                     // 10
    "ninja: build stopped: subcommand failed.\n"                       // 11
    "Summary: 0 errors were expected\n";                               // 12

TEST(LogTriage, GroupsRanksAndShowsTheFirstOccurrence) {
    const nlohmann::json answer = triageLog(kBuildLog, {.context_lines = 1, .max_groups = 3});
    EXPECT_EQ(answer["lines"], 12);
    EXPECT_EQ(answer["errors"], 5);
    EXPECT_EQ(answer["warnings"], 3);
    ASSERT_EQ(answer["groups"].size(), 3u);
    EXPECT_EQ(answer["groups_omitted"], 2);

    // Errors first, the most frequent first, then by first appearance.
    const nlohmann::json& first = answer["groups"][0];
    EXPECT_EQ(first["rank"], 1);
    EXPECT_EQ(first["severity"], "error");
    EXPECT_EQ(first["count"], 2);
    EXPECT_EQ(first["first_line"], 2);
    EXPECT_EQ(first["example"], "src/a.cpp:10:3: error: 'foo' was not declared");
    EXPECT_EQ(first["context"],
              nlohmann::json::parse(R"([{"line":1,"text":"[1/4] Building CXX object a.o"},
                {"line":2,"text":"src/a.cpp:10:3: error: 'foo' was not declared"},
                {"line":3,"text":"   10 |   foo();"}])"));
    EXPECT_EQ(answer["groups"][1]["first_line"], 9);
    EXPECT_EQ(answer["groups"][1]["example"], "/usr/bin/ld: a.o: undefined reference to `bar()'");
    EXPECT_EQ(answer["groups"][2]["first_line"], 10);

    const nlohmann::json all = triageLog(kBuildLog);
    ASSERT_EQ(all["groups"].size(), 5u);
    EXPECT_EQ(all["groups"][3]["first_line"], 11);
    EXPECT_EQ(all["groups"][4]["severity"], "warning");
    EXPECT_EQ(all["groups"][4]["count"], 3);
    EXPECT_EQ(all["groups"][4]["signature"], "<path>:<n>:<n>: warning: unused variable 'n'");
    EXPECT_EQ(all.dump(), triageLog(kBuildLog).dump());
}

TEST(LogTriage, EmptyAndQuietLogsHaveNoGroups) {
    EXPECT_EQ(triageLog("")["groups"].size(), 0u);
    const nlohmann::json quiet = triageLog("all good\nstill good");
    EXPECT_EQ(quiet["lines"], 2);
    EXPECT_EQ(quiet["groups"].size(), 0u);
    const std::string long_line = "error: " + std::string(5000, 'x');
    EXPECT_LT(triageLog(long_line)["groups"][0]["example"].get<std::string>().size(), 600u);
}

}  // namespace
}  // namespace vostra::sandbox
