// Cost of one primary-key look-up through the sqlite3 C interface, both
// prepared per query and prepared once. Usage: sqlite_point_lookup <db> <rows>
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <random>
#include <string>

namespace {

std::string g_path;
int g_rows = 100000;

void BM_PointLookup(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(g_path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    std::mt19937 engine(42);
    std::uniform_int_distribution<int> id(1, g_rows);
    for (auto _ : state) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db, "SELECT * FROM items WHERE id = ?", -1, &statement, nullptr);
        const std::string key = std::to_string(id(engine));
        sqlite3_bind_text(statement, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(statement) == SQLITE_ROW)
            benchmark::DoNotOptimize(sqlite3_column_text(statement, 1));
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
}
BENCHMARK(BM_PointLookup);

// The same look-up on one statement prepared once and reset between runs,
// as the connector's statement cache does.
void BM_PointLookupPrepared(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(g_path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, "SELECT * FROM items WHERE id = ?", -1, &statement, nullptr);
    std::mt19937 engine(42);
    std::uniform_int_distribution<int> id(1, g_rows);
    for (auto _ : state) {
        const std::string key = std::to_string(id(engine));
        sqlite3_bind_text(statement, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(statement) == SQLITE_ROW)
            benchmark::DoNotOptimize(sqlite3_column_text(statement, 1));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
}
BENCHMARK(BM_PointLookupPrepared);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc < 2) return 2;
    g_path = argv[1];
    if (argc > 2) g_rows = std::atoi(argv[2]);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
