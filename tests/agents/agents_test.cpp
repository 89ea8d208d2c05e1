// Cron schedules (what parses, why not, and when it fires next) and agent
// definitions in a real agent store (uniqueness, replacement, seeding,
// importing a folder of definition files).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "agents/agent_definitions.h"
#include "agents/cron_schedule.h"
#include "connectors/agent_storage.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;
using std::chrono::sys_days;
using namespace std::chrono_literals;

std::chrono::system_clock::time_point at(int y, unsigned m, unsigned d, int hour, int minute) {
    return sys_days(std::chrono::year(y) / m / d) + std::chrono::hours(hour) +
           std::chrono::minutes(minute);
}

std::string next(const std::string& text, std::chrono::system_clock::time_point after) {
    std::string error;
    const auto schedule = CronSchedule::parse(text, error);
    if (!schedule) return "invalid: " + error;
    const auto when = schedule->nextRun(after);
    return when ? isoTime(*when) : "never";
}

TEST(CronSchedule, FindsTheNextMinuteThatFires) {
    const auto monday_noon = at(2026, 11, 23, 12, 0);  // a Monday
    EXPECT_EQ(next("* * * * *", monday_noon), "2026-11-23T12:01:00Z");
    EXPECT_EQ(next("*/15 * * * *", at(2026, 11, 23, 12, 7)), "2026-11-23T12:15:00Z");
    EXPECT_EQ(next("30 9 * * *", monday_noon), "2026-11-24T09:30:00Z");
    EXPECT_EQ(next("0 0 1 jan *", monday_noon), "2027-01-01T00:00:00Z");
    EXPECT_EQ(next("0 8 * * mon-fri", at(2026, 11, 27, 9, 0)), "2026-11-30T08:00:00Z");
    EXPECT_EQ(next("0 8 * * 7", monday_noon), "2026-11-29T08:00:00Z");  // 7 is Sunday
    EXPECT_EQ(next("5-10/5 1,3 * * *", monday_noon), "2026-11-24T01:05:00Z");
    // Both day fields restricted: either one fires (the 1st, or a Friday).
    EXPECT_EQ(next("0 0 1 * fri", monday_noon), "2026-11-27T00:00:00Z");
    // One of them "*"-led: both must hold (every other day that is a Friday).
    EXPECT_EQ(next("0 0 */2 * fri", monday_noon), "2026-11-27T00:00:00Z");
    EXPECT_EQ(next("0 0 29 2 *", monday_noon), "2028-02-29T00:00:00Z");
    EXPECT_EQ(next("0 0 30 2 *", monday_noon), "never");
}

TEST(CronSchedule, SaysWhyAScheduleIsRefused) {
    const auto now = at(2026, 1, 1, 0, 0);
    EXPECT_EQ(next("* * * *", now), "invalid: expected 5 fields (minute hour day-of-month month "
                                    "day-of-week), got 4");
    EXPECT_EQ(next("61 * * * *", now), "invalid: minute: 61 is out of range 0-59");
    EXPECT_EQ(next("* 24 * * *", now), "invalid: hour: 24 is out of range 0-23");
    EXPECT_EQ(next("* * 0 * *", now), "invalid: day of month: 0 is out of range 1-31");
    EXPECT_EQ(next("* * * foo *", now), "invalid: month: unknown name foo");
    EXPECT_EQ(next("*/0 * * * *", now), "invalid: minute: bad step in */0");
    EXPECT_EQ(next("5-1 * * * *", now), "invalid: minute: range 5-1 runs backwards");
    EXPECT_EQ(next("1,,2 * * * *", now), "invalid: minute: empty value");
    EXPECT_EQ(next("x * * * *", now), "invalid: minute: x is not a number");
}

class AgentStore : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vostra-agents-XXXXXX";
        dir_ = mkdtemp(pattern);
        ASSERT_TRUE(store_.open(dir_ + "/agent_store.db"));
    }
    void TearDown() override { fs::remove_all(dir_); }

    static AgentDefinition named(const std::string& name, const std::string& version = "1.0.0") {
        AgentDefinition definition;
        EXPECT_TRUE(AgentDefinition::fromJson(
            {{"name", name}, {"version", version}, {"system_prompt", "Be helpful."},
             {"tags", {"a", "b"}}, {"temperature", 0.2}},
            definition));
        return definition;
    }

    std::string dir_;
    AgentStorage store_;
};

TEST_F(AgentStore, DefinitionsAreUniqueByNameAndVersion) {
    AgentDefinitions agents(store_);
    AgentDefinition first = named("writer");
    ASSERT_TRUE(agents.create(first));
    EXPECT_EQ(first.id.rfind("agent-", 0), 0u);
    EXPECT_EQ(first.tags, (nlohmann::json{"a", "b"}));
    EXPECT_DOUBLE_EQ(first.temperature, 0.2);
    AgentDefinition again = named("writer");
    EXPECT_EQ(agents.create(again).kind, ErrorKind::Conflict);
    AgentDefinition newer = named("writer", "2.0.0");
    ASSERT_TRUE(agents.create(newer));
    AgentDefinition alpha = named("alpha");
    ASSERT_TRUE(agents.create(alpha));
    const auto listed = agents.list();
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_EQ(listed[0].name, "alpha");
    EXPECT_EQ(listed[2].version, "2.0.0");

    AgentDefinition changed = named("writer", "2.0.0");
    changed.description = "Writes.";
    EXPECT_EQ(agents.update(first.id, changed).kind, ErrorKind::Conflict);  // taken by `newer`
    changed = named("writer");
    changed.description = "Writes.";
    ASSERT_TRUE(agents.update(first.id, changed));
    EXPECT_EQ(changed.id, first.id);
    EXPECT_EQ(changed.created_at, first.created_at);
    EXPECT_NE(changed.updated_at, first.updated_at);
    EXPECT_EQ(agents.update("agent-none", changed).message, "Agent not found");
    ASSERT_TRUE(agents.remove(first.id));
    EXPECT_EQ(agents.remove(first.id).kind, ErrorKind::NotFound);

    AgentDefinition invalid;
    EXPECT_EQ(AgentDefinition::fromJson({{"name", "x"}}, invalid).message,
              "system_prompt is required");
    EXPECT_EQ(AgentDefinition::fromJson({{"system_prompt", "x"}}, invalid).message,
              "name is required");
    EXPECT_EQ(AgentDefinition::fromJson({{"name", "x"}, {"system_prompt", "y"}, {"tags", "t"}},
                                        invalid)
                  .message,
              "tags must be an array");
}

TEST_F(AgentStore, SeedingTwiceAddsNothingAndAFolderSyncs) {
    AgentDefinitions agents(store_);
    const auto [added, skipped] = agents.seed();
    EXPECT_EQ(added, static_cast<int>(AgentDefinitions::builtins().size()));
    EXPECT_EQ(skipped, 0);
    EXPECT_EQ(agents.seed(), std::make_pair(0, added));

    fs::create_directories(dir_ + "/defs");
    std::ofstream(dir_ + "/defs/a.json") << R"({"name":"importer","system_prompt":"Import."})";
    std::ofstream(dir_ + "/defs/b.json") << R"({"name":"librarian","system_prompt":"Changed."})";
    std::ofstream(dir_ + "/defs/broken.json") << "{not json";
    std::ofstream(dir_ + "/defs/empty.json") << R"({"name":"no-prompt"})";
    std::ofstream(dir_ + "/defs/notes.txt") << "ignored";
    AgentSyncReport report = agents.syncFolder(dir_ + "/defs");
    EXPECT_EQ(report.added, 1);
    EXPECT_EQ(report.updated, 1);
    ASSERT_EQ(report.failed.size(), 2u);
    EXPECT_EQ(report.failed[0], (nlohmann::json{{"file", "broken.json"}, {"reason", "not valid JSON"}}));
    EXPECT_EQ(report.failed[1]["reason"], "system_prompt is required");
    report = agents.syncFolder(dir_ + "/defs");
    EXPECT_EQ(report.added + report.updated, 0);
    EXPECT_EQ(report.unchanged, 2);
}

}  // namespace
}  // namespace vostra::data
