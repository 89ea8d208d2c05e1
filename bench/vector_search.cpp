// Top-10 similarity search over 100,000 random 768-float documents in the
// memory and the SQLite backend, each beside its own reference measured in
// the same run: for memory, one streaming pass over the same floats (the
// memory-bandwidth floor); for SQLite, stepping every row of the same table
// without any arithmetic. Also checks the ranking against a strictly
// sequential float sum and measures ingestion through the service with the
// local embedder. Usage: vector_search <scratch dir> [documents] [dimension]
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "vector/memory_vector_backend.h"
#include "vector/sqlite_vector_backend.h"
#include "vector/vector_storage_service.h"

namespace {

using namespace vostra::data;
using Clock = std::chrono::steady_clock;

constexpr int kQueries = 20;
constexpr int kTopK = 10;
constexpr std::size_t kAddBatch = 1000;

double medianMs(const std::function<void()>& run, int times = kQueries) {
    std::vector<double> ms;
    for (int i = 0; i < times; ++i) {
        const auto start = Clock::now();
        run();
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::nth_element(ms.begin(), ms.begin() + times / 2, ms.end());
    return ms[static_cast<std::size_t>(times / 2)];
}

// The floor: every float loaded once into 16 independent accumulators.
using Lanes4 = float __attribute__((vector_size(16)));
float streamSum(const float* data, std::size_t n) {
    Lanes4 a0 = {}, a1 = {}, a2 = {}, a3 = {};
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        Lanes4 v[4];
        std::memcpy(v, data + i, sizeof v);
        a0 += v[0];
        a1 += v[1];
        a2 += v[2];
        a3 += v[3];
    }
    const Lanes4 sum = a0 + a1 + a2 + a3;
    float total = sum[0] + sum[1] + sum[2] + sum[3];
    for (; i < n; ++i)
        total += data[i];
    return total;
}

// What a naive implementation computes: one sequential float sum each.
float sequentialCosine(const float* a, const float* b, std::size_t n) {
    float dot = 0, sa = 0, sb = 0;
    for (std::size_t i = 0; i < n; ++i) {
        dot += a[i] * b[i];
        sa += a[i] * a[i];
        sb += b[i] * b[i];
    }
    if (sa == 0 || sb == 0) return 0;
    return dot / (std::sqrt(sa) * std::sqrt(sb));
}

VectorDocument makeDocument(std::size_t i, const float* vector, std::size_t dimension) {
    VectorDocument d;
    d.id = "doc-" + std::to_string(i);
    d.content = "Chunk " + std::to_string(i) +
                " of a benchmark corpus: a sentence or two of text "
                "standing in for what a real ingest would store beside its vector.";
    d.source = "bench/" + std::to_string(i / 100) + ".txt";
    d.namespace_id = "bench";
    d.metadata = {{"group", std::to_string(i % 10)}};
    d.embedding.assign(vector, vector + dimension);
    return d;
}

template <typename Backend>
void fill(Backend& backend, const std::vector<float>& matrix, std::size_t count,
          std::size_t dimension) {
    for (std::size_t begin = 0; begin < count; begin += kAddBatch) {
        std::vector<VectorDocument> batch;
        for (std::size_t i = begin; i < std::min(count, begin + kAddBatch); ++i)
            batch.push_back(makeDocument(i, matrix.data() + i * dimension, dimension));
        backend.add(batch);
    }
}

double rawSqliteStep(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    const double ms = medianMs([&] {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db, "SELECT id, content, metadata, embedding FROM vectors", -1,
                           &statement, nullptr);
        std::size_t bytes = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            // Fetch every column as the backend must, but compute nothing.
            sqlite3_column_text(statement, 0);
            sqlite3_column_text(statement, 1);
            sqlite3_column_text(statement, 2);
            sqlite3_column_blob(statement, 3);
            bytes += static_cast<std::size_t>(sqlite3_column_bytes(statement, 3));
        }
        sqlite3_finalize(statement);
        if (bytes == 0) std::fprintf(stderr, "empty table\n");
    });
    sqlite3_close(db);
    return ms;
}

void ingestThroughput(const std::string& dir) {
    VectorStorageConfig config;
    config.enabled = true;
    config.storage_path = dir + "/ingest";
    config.embedding.type = EmbeddingProviderType::Local;
    VectorStorageService service;
    service.initialize(config);

    std::mt19937 engine(11);
    std::uniform_int_distribution<int> word_length(2, 9), letter('a', 'z'), words(6, 20);
    std::vector<std::string> texts;
    for (int t = 0; t < 400; ++t) {
        std::string text;
        while (text.size() < 3000) {
            for (int w = words(engine); w > 0; --w) {
                text += ' ';
                for (int l = word_length(engine); l > 0; --l)
                    text += static_cast<char>(letter(engine));
            }
            text += '.';
        }
        texts.push_back(std::move(text));
    }
    std::size_t chunks = 0;
    const auto start = Clock::now();
    for (std::size_t t = 0; t < texts.size(); ++t)
        chunks += static_cast<std::size_t>(
            service.addText("bench", "ingest", texts[t], "text-" + std::to_string(t), {})
                .documents_added);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("ingest, local embedder, SQLite:    %8.0f chunks/s  (%zu chunks of <= %d bytes)\n",
                static_cast<double>(chunks) / seconds, chunks, config.chunk_size);
    service.shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <scratch dir> [documents] [dimension]\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const std::size_t count = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 100000;
    const std::size_t dimension = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 768;
    std::filesystem::create_directories(dir);

    std::vector<float> matrix(count * dimension);
    std::mt19937 engine(42);
    std::normal_distribution<float> normal;
    for (float& x : matrix)
        x = normal(engine);
    // Queries near stored documents, so each has a clear best match.
    std::vector<std::vector<float>> queries;
    for (int q = 0; q < kQueries; ++q) {
        const std::size_t target = (static_cast<std::size_t>(q) * 7919) % count;
        std::vector<float> query(
            matrix.begin() + static_cast<std::ptrdiff_t>(target * dimension),
            matrix.begin() + static_cast<std::ptrdiff_t>((target + 1) * dimension));
        for (float& x : query)
            x += 0.5f * normal(engine);
        queries.push_back(std::move(query));
    }
    std::printf("%zu documents x %zu floats (%.0f MB of vectors), top-%d, median of %d\n", count,
                dimension, static_cast<double>(matrix.size()) * 4 / 1e6, kTopK, kQueries);

    volatile float sink = 0;
    const double floor_ms = medianMs([&] { sink = streamSum(matrix.data(), matrix.size()); });

    const int32_t threads = VectorStorageConfig().search_threads;
    MemoryVectorBackend memory(threads);
    fill(memory, matrix, count, dimension);
    int q = 0;
    std::vector<std::vector<VectorSearchResult>> memory_results(kQueries);
    const double memory_ms = medianMs([&] {
        memory_results[q] = memory.search(queries[q], kTopK, 0.0f, {});
        q = (q + 1) % kQueries;
    });
    MemoryVectorBackend single(1);
    fill(single, matrix, count, dimension);
    const double single_ms = medianMs([&] {
        single.search(queries[q], kTopK, 0.0f, {});
        q = (q + 1) % kQueries;
    });

    std::printf("floor, streaming sum, 1 thread:    %8.2f ms\n", floor_ms);
    // The backend uses no more threads than there are cores.
    const unsigned used = std::min<unsigned>(static_cast<unsigned>(threads),
                                             std::max(1u, std::thread::hardware_concurrency()));
    std::printf(
        "memory backend, %u of %d threads:   %8.2f ms   memory / floor = %.2f (target <= 2)\n",
        used, threads, memory_ms, memory_ms / floor_ms);
    std::printf("memory backend, 1 thread:          %8.2f ms   memory / floor = %.2f\n", single_ms,
                single_ms / floor_ms);

    // Same ranking as strictly sequential sums wherever scores differ clearly.
    float worst = 0;
    int same_rankings = 0;
    for (int check = 0; check < 3; ++check) {
        std::vector<std::pair<float, std::size_t>> all(count);
        for (std::size_t i = 0; i < count; ++i)
            all[i] = {
                sequentialCosine(queries[check].data(), matrix.data() + i * dimension, dimension),
                i};
        // One past the list, to tell a near tie at its end from a wrong pick.
        std::partial_sort(all.begin(), all.begin() + kTopK + 1, all.end(), std::greater<>());
        bool same = true;
        for (int r = 0; r < kTopK; ++r) {
            const VectorSearchResult& got = memory_results[check][r];
            worst = std::max(worst, std::fabs(got.score - all[r].first));
            if (got.document.id != "doc-" + std::to_string(all[r].second) &&
                std::fabs(all[r].first - all[r + 1].first) > 1e-5f)
                same = false;
        }
        same_rankings += same;
    }
    std::printf(
        "ranking vs sequential float sums:  %d/3 top-%d lists equal, max score difference %.1e\n",
        same_rankings, kTopK, worst);
    memory.clear();
    single.clear();

    const std::string db = dir + "/bench.db";
    std::filesystem::remove(db);
    SQLiteVectorBackend sqlite;
    sqlite.initialize(db, "bench", "bench", static_cast<int32_t>(dimension));
    const auto fill_start = Clock::now();
    fill(sqlite, matrix, count, dimension);
    const double fill_s = std::chrono::duration<double>(Clock::now() - fill_start).count();
    const double step_ms = rawSqliteStep(db);
    const double sqlite_ms = medianMs([&] {
        sqlite.search(queries[q], kTopK, 0.0f, {});
        q = (q + 1) % kQueries;
    });
    std::printf("raw SQLite step, 4 columns:        %8.2f ms\n", step_ms);
    std::printf(
        "SQLite backend:                    %8.2f ms   SQLite / raw step = %.2f (target <= 1.5)\n",
        sqlite_ms, sqlite_ms / step_ms);
    std::printf("SQLite add, precomputed vectors:   %8.0f documents/s\n",
                static_cast<double>(count) / fill_s);

    ingestThroughput(dir);
    return 0;
}
