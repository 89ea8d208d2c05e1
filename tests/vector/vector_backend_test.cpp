// What the vector service can rely on from a backend: one behavioural suite
// over the memory and the SQLite backend, then what only one of them does.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/support/daemon_process.h"
#include "vector/memory_vector_backend.h"
#include "vector/sqlite_vector_backend.h"

namespace vostra::data {
namespace {

enum class Kind { Memory, SQLite };

VectorDocument doc(const std::string& id, std::vector<float> embedding,
                   const std::string& source = "s", std::map<std::string, std::string> meta = {}) {
    VectorDocument d;
    d.id = id;
    d.content = "content of " + id;
    d.source = source;
    d.namespace_id = "ns";
    d.metadata = std::move(meta);
    d.embedding = std::move(embedding);
    return d;
}

using Ids = std::vector<std::string>;

Ids ids(const std::vector<VectorSearchResult>& results) {
    Ids out;
    for (const auto& r : results)
        out.push_back(r.document.id);
    return out;
}

class BackendTest : public ::testing::Test {
protected:
    void open(Kind kind) {
        if (dir_.empty()) dir_ = test::makeTempDir("vostra-vector");
        backend_.reset(kind == Kind::Memory
                           ? static_cast<IVectorBackend*>(new MemoryVectorBackend(1))
                           : new SQLiteVectorBackend());
        ASSERT_TRUE(backend_->initialize(path(), "t", "ns", 3));
    }
    void TearDown() override {
        backend_.reset();
        test::removeTree(dir_);
    }
    std::string path() const { return dir_ + "/t_ns.db"; }
    std::vector<VectorSearchResult> search(std::vector<float> query, int32_t top_k = 500,
                                           float min_score = 0.0f,
                                           std::map<std::string, std::string> filter = {}) {
        return backend_->search(query, top_k, min_score, filter);
    }

    std::string dir_;
    std::unique_ptr<IVectorBackend> backend_;
};

class BackendBehaviour : public BackendTest, public ::testing::WithParamInterface<Kind> {
protected:
    void SetUp() override { open(GetParam()); }
};

TEST_P(BackendBehaviour, StoredDocumentsReadBackWhole) {
    VectorDocument d = doc("a", {0.25f, -1.5f, 3.0f}, "file.md", {{"lang", "en"}, {"k", "v"}});
    d.created_at = 1700000000123;
    d.updated_at = -5;
    d.chunk_index = 2;
    d.total_chunks = 7;
    ASSERT_TRUE(backend_->add({d}));
    const auto read = backend_->get("a");
    ASSERT_TRUE(read);
    EXPECT_EQ(read->toJson(), d.toJson());
    EXPECT_EQ(read->embedding, d.embedding);
    EXPECT_FALSE(backend_->get("missing"));
}

TEST_P(BackendBehaviour, ReAddingAnIdReplacesItAndKeepsTheCount) {
    ASSERT_TRUE(backend_->add({doc("a", {1, 0, 0}), doc("b", {0, 1, 0})}));
    VectorDocument replacement = doc("a", {0, 0, 1, 5}, "other");
    replacement.content = "new";
    ASSERT_TRUE(backend_->add({replacement}));
    EXPECT_EQ(backend_->count(), 2u);
    EXPECT_EQ(backend_->get("a")->content, "new");
    EXPECT_EQ(backend_->get("a")->embedding, (std::vector<float>{0, 0, 1, 5}));
    EXPECT_EQ(ids(search({0, 0, 1, 5})), (Ids{"a", "b"}));
}

TEST_P(BackendBehaviour, RanksByCosineAndHonoursTopK) {
    ASSERT_TRUE(backend_->add(
        {doc("far", {0.2f, 1, 0}), doc("near", {1, 0.1f, 0}), doc("mid", {1, 1, 0})}));
    const auto results = search({1, 0, 0});
    ASSERT_EQ(ids(results), (Ids{"near", "mid", "far"}));
    EXPECT_NEAR(results[1].score, 0.70710677f, 1e-6);
    EXPECT_FLOAT_EQ(results[1].distance, 1.0f - results[1].score);
    EXPECT_EQ(results[1].document.embedding.size(), 3u);
    EXPECT_EQ(ids(search({1, 0, 0}, 2)), (Ids{"near", "mid"}));
    EXPECT_TRUE(search({1, 0, 0}, 0).empty());
    EXPECT_TRUE(search({1, 0, 0}, -3).empty());
}

TEST_P(BackendBehaviour, OppositeVectorsNeedAMinScoreOfMinusOneAndOddOnesScoreZero) {
    ASSERT_TRUE(backend_->add({doc("opposite", {-1, -2, -3})}));
    EXPECT_TRUE(search({1, 2, 3}).empty());
    const auto results = search({1, 2, 3}, 10, -1.0f);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_FLOAT_EQ(results[0].score, -1.0f);
    EXPECT_FLOAT_EQ(results[0].distance, 2.0f);

    backend_->clear();
    ASSERT_TRUE(
        backend_->add({doc("short", {1, 0}), doc("zero", {0, 0, 0}), doc("ok", {1, 0, 0})}));
    const auto scored = search({1, 0, 0});
    ASSERT_EQ(ids(scored).front(), "ok");
    EXPECT_EQ(scored.at(1).score, 0.0f);
    EXPECT_EQ(scored.at(2).score, 0.0f);
    EXPECT_EQ(ids(search({1, 0, 0}, 10, 0.01f)), (Ids{"ok"}));
}

TEST_P(BackendBehaviour, FilterNeedsEveryPairAndAMissingKeyExcludes) {
    ASSERT_TRUE(backend_->add({doc("en", {1, 0, 0}, "s", {{"lang", "en"}, {"kind", "faq"}}),
                               doc("de", {1, 0, 0}, "s", {{"lang", "de"}, {"kind", "faq"}}),
                               doc("bare", {1, 0, 0})}));
    EXPECT_EQ(search({1, 0, 0}).size(), 3u);
    EXPECT_EQ(ids(search({1, 0, 0}, 10, 0, {{"lang", "en"}})), (Ids{"en"}));
    EXPECT_EQ(search({1, 0, 0}, 10, 0, {{"kind", "faq"}}).size(), 2u);
    EXPECT_TRUE(search({1, 0, 0}, 10, 0, {{"lang", "en"}, {"kind", "howto"}}).empty());
    EXPECT_TRUE(search({1, 0, 0}, 10, 0, {{"owner", "x"}}).empty());
    // A quote in a value is data, not statement text.
    ASSERT_TRUE(backend_->add({doc("quoted", {1, 0, 0}, "s", {{"title", "it's"}})}));
    EXPECT_EQ(ids(search({1, 0, 0}, 10, 0, {{"title", "it's"}})), (Ids{"quoted"}));
}

TEST_P(BackendBehaviour, RemovesByIdAndBySourceAndListsSources) {
    ASSERT_TRUE(backend_->add({doc("a", {1, 0, 0}, "b.md"), doc("b", {0, 1, 0}, "a.md"),
                               doc("c", {0, 0, 1}, "b.md"), doc("d", {1, 1, 1}, "c.md")}));
    EXPECT_EQ(backend_->listSources(), (Ids{"a.md", "b.md", "c.md"}));
    EXPECT_EQ(backend_->removeBySource("b.md"), 2u);
    EXPECT_EQ(backend_->removeBySource("b.md"), 0u);
    EXPECT_TRUE(backend_->remove({"d", "never-stored"}));
    EXPECT_EQ(ids(search({0, 1, 0})), (Ids{"b"}));
    backend_->clear();
    EXPECT_EQ(backend_->count(), 0u);
    EXPECT_TRUE(backend_->listSources().empty());
}

TEST_P(BackendBehaviour, ManyReplacementsAndRemovalsKeepVectorsApart) {
    // Enough churn to make the memory backend repack its vectors.
    std::vector<VectorDocument> docs;
    for (int i = 0; i < 50; ++i)
        docs.push_back(doc("d" + std::to_string(i), {float(i), 1, 0}));
    ASSERT_TRUE(backend_->add(docs));
    for (int round = 0; round < 3; ++round) {
        std::vector<std::string> gone;
        for (int i = round; i < 50; i += 3)
            gone.push_back("d" + std::to_string(i));
        ASSERT_TRUE(backend_->remove(gone));
        for (int i = 0; i < 50; i += 2)
            ASSERT_TRUE(
                backend_->add({doc("d" + std::to_string(i), {float(i), 1, 0, float(round)})}));
    }
    // Every id was removed once; the even ones came back after each removal.
    EXPECT_EQ(backend_->count(), 25u);
    for (int i = 0; i < 50; i += 2)
        EXPECT_EQ(backend_->get("d" + std::to_string(i)).value().embedding,
                  (std::vector<float>{float(i), 1, 0, 2}));
}

INSTANTIATE_TEST_SUITE_P(Backends, BackendBehaviour, ::testing::Values(Kind::Memory, Kind::SQLite),
                         [](const auto& info) {
                             return info.param == Kind::Memory ? "Memory" : "SQLite";
                         });

TEST_F(BackendTest, MemorySearchOverSeveralThreadsMatchesOneThread) {
    // Past a million floats the scan is shared out between threads.
    std::mt19937 engine(7);
    std::normal_distribution<float> value;
    std::vector<VectorDocument> docs;
    for (int i = 0; i < 1500; ++i) {
        std::vector<float> v(768);
        for (float& x : v)
            x = value(engine);
        docs.push_back(doc(std::to_string(i), v, "s", {{"odd", i % 2 ? "yes" : "no"}}));
    }
    MemoryVectorBackend one(1), four(4);
    ASSERT_TRUE(one.add(docs));
    ASSERT_TRUE(four.add(docs));
    const std::vector<float> query = docs[42].embedding;
    const std::map<std::string, std::string> odd = {{"odd", "yes"}};
    for (const auto& filter : {std::map<std::string, std::string>{}, odd}) {
        const auto a = one.search(query, 20, -1.0f, filter);
        const auto b = four.search(query, 20, -1.0f, filter);
        ASSERT_EQ(a.size(), 20u);
        ASSERT_EQ(ids(a), ids(b));
        for (std::size_t i = 0; i < a.size(); ++i)
            EXPECT_EQ(a[i].score, b[i].score);
    }
    EXPECT_EQ(one.search(query, 1, 0.0f, {})[0].document.id, "42");
}

TEST_F(BackendTest, SQLiteStoresVectorsAsRawLittleEndianFloatsBitForBit) {
    open(Kind::SQLite);
    std::vector<float> vector(768);
    std::mt19937 engine(3);
    for (float& x : vector)
        x = std::uniform_real_distribution<float>(-1e30f, 1e30f)(engine);
    vector[0] = -0.0f;
    vector[1] = std::numeric_limits<float>::denorm_min();
    vector[2] = std::numeric_limits<float>::infinity();
    ASSERT_TRUE(backend_->add({doc("v", vector)}));
    backend_.reset();

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &db), SQLITE_OK);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT embedding FROM vectors WHERE id = 'v'", -1, &select, nullptr);
    ASSERT_EQ(sqlite3_step(select), SQLITE_ROW);
    ASSERT_EQ(sqlite3_column_bytes(select, 0), 3072);
    const auto* blob = static_cast<const unsigned char*>(sqlite3_column_blob(select, 0));
    // Element 1, the smallest denormal, is 01 00 00 00 on a little-endian disk.
    EXPECT_EQ(blob[4], 1);
    EXPECT_EQ(std::memcmp(blob, vector.data(), 3072), 0);
    sqlite3_finalize(select);
    sqlite3_close(db);

    open(Kind::SQLite);
    const auto read = backend_->get("v");
    ASSERT_TRUE(read);
    EXPECT_EQ(std::memcmp(read->embedding.data(), vector.data(), 3072), 0);
}

TEST_F(BackendTest, SQLiteTextSearchFindsContentOrMetadataIgnoringCase) {
    open(Kind::SQLite);
    VectorDocument body = doc("body", {1, 0, 0});
    body.content = "The Quick brown fox";
    VectorDocument tagged = doc("tagged", {1, 0, 0}, "s", {{"author", "Ada QUICKLY"}});
    tagged.content = "nothing here";
    ASSERT_TRUE(backend_->add({body, tagged, doc("other", {1, 0, 0})}));

    auto found = backend_->textSearch("quick", 10, "");
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.document.id < b.document.id; });
    ASSERT_EQ(ids(found), (Ids{"body", "tagged"}));
    EXPECT_TRUE(found[0].document.embedding.empty());
    EXPECT_EQ(backend_->textSearch("quick", 1, "").size(), 1u);
    EXPECT_TRUE(backend_->textSearch("quick", 0, "").empty());
    EXPECT_EQ(ids(backend_->textSearch("ada", 10, "author")), (Ids{"tagged"}));
    EXPECT_TRUE(backend_->textSearch("fox", 10, "author").empty());
}

TEST_F(BackendTest, SQLiteRefusesMetadataKeysThatAreNotPlainNames) {
    open(Kind::SQLite);
    ASSERT_TRUE(backend_->add({doc("a", {1, 0, 0}, "s", {{"a b", "v"}, {"x", "v"}})}));
    EXPECT_TRUE(SQLiteVectorBackend::isUsableMetadataKey("Lang_2-x.y"));
    for (const char* key : {"", "a b", "x')--", "$", "k[0]", "ü"}) {
        EXPECT_FALSE(SQLiteVectorBackend::isUsableMetadataKey(key)) << key;
        EXPECT_TRUE(search({1, 0, 0}, 10, 0, {{key, "v"}}).empty()) << key;
        // An empty field means no field at all in a text search.
        EXPECT_TRUE(!*key || backend_->textSearch("v", 10, key).empty()) << key;
    }
    EXPECT_EQ(search({1, 0, 0}, 10, 0, {{"x", "v"}}).size(), 1u);
}

TEST_F(BackendTest, SQLiteReportsAnUnopenableFile) {
    SQLiteVectorBackend backend;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(backend.initialize("/nonexistent-dir/x/y.db", "t", "n", 3));
    EXPECT_NE(
        testing::internal::GetCapturedStderr().find("[SQLiteVector] Failed to open database: "),
        std::string::npos);
    EXPECT_FALSE(backend.add({doc("a", {1, 0, 0})}));
    EXPECT_EQ(backend.count(), 0u);
}

}  // namespace
}  // namespace vostra::data
