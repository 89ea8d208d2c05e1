// The GGUF header reader: what it reads from files the test writes, the
// behaviours kept on purpose, every value type, hostile and truncated
// headers, and agreement with an independent reader (@huggingface/gguf).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <random>

#include "models/gguf_parser.h"
#include "tests/support/gguf_writer.h"

namespace vostra::pipeline {
namespace {

namespace fs = std::filesystem;
using test::GGUFValue;
using test::GGUFWriter;

constexpr uint32_t kF32 = 0, kF16 = 1, kQ4K = 12, kQ6K = 14;

class GGUFFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vostra-gguf-XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // A small llama-like model: two layers, embedding and output.
    static GGUFWriter llama() {
        GGUFWriter writer;
        writer.add("general.architecture", GGUFValue::str("llama"))
            .add("general.name", GGUFValue::str("Tiny Llama"))
            .add("general.file_type", GGUFValue::u32(15))
            .add("general.quantization_version", GGUFValue::u32(2))
            .add("llama.block_count", GGUFValue::u32(2))
            .add("llama.embedding_length", GGUFValue::u64(64))
            .add("llama.attention.head_count", GGUFValue::u32(8))
            .add("llama.attention.head_count_kv", GGUFValue::u32(2))
            .add("llama.context_length", GGUFValue::u32(4096))
            .add("llama.vocab_size", GGUFValue::u32(32000))
            .add("llama.rope.freq_base", GGUFValue::f32(10000.0f))
            .tensor("token_embd.weight", {64, 32000}, kF16, 0)
            .tensor("blk.0.attn_q.weight", {64, 64}, kQ4K, 4096000)
            .tensor("blk.0.attn_norm.weight", {64}, kF32, 4098304)
            .tensor("blk.1.attn_q.weight", {64, 64}, kQ4K, 4098560)
            .tensor("output.weight", {64, 32000}, kQ6K, 4100864);
        return writer;
    }

    std::string dir_;
};

TEST_F(GGUFFiles, ReadsTheModelsShapeTensorsAndLayers) {
    llama().write(path("tiny-llama.gguf"), 6000000);
    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("tiny-llama.gguf"), meta));
    EXPECT_EQ(meta.file_name, "tiny-llama.gguf");
    EXPECT_EQ(meta.version, 3u);
    EXPECT_EQ(meta.architecture, "llama");
    EXPECT_EQ(meta.model_name, "Tiny Llama");
    EXPECT_EQ(meta.file_type, 15);
    EXPECT_EQ(meta.block_count, 2);
    EXPECT_EQ(meta.embedding_length, 64);
    EXPECT_EQ(meta.head_count, 8);
    EXPECT_EQ(meta.head_count_kv, 2);
    EXPECT_EQ(meta.context_length, 4096);
    EXPECT_EQ(meta.vocab_size, 32000);
    EXPECT_EQ(meta.metadata_count, 11u);
    ASSERT_EQ(meta.tensors.size(), 5u);
    EXPECT_EQ(meta.tensor_data_offset % 32, 0u);
    EXPECT_EQ(meta.tensors[0].type_name, "f16");
    EXPECT_EQ(meta.tensors[1].type_name, "q4_k");
    EXPECT_EQ(meta.tensors[1].offset, meta.tensor_data_offset + 4096000);
    EXPECT_EQ(meta.tensors[1].dims, (std::vector<uint64_t>{64, 64}));
    // No tag in the name: the matrices' type with the most weights.
    EXPECT_EQ(meta.quantization, "F16");

    ASSERT_EQ(meta.layers.size(), 2u);
    EXPECT_EQ(meta.layers[0].start_offset, meta.tensor_data_offset + 4096000);
    EXPECT_EQ(meta.layers[0].end_offset, meta.tensor_data_offset + 4098560);
    EXPECT_EQ(meta.layers[0].tensor_count, 2);
    EXPECT_EQ(meta.layers[1].size_bytes, 2304u);
    EXPECT_EQ(meta.embed_size, 4096000u);
    EXPECT_EQ(meta.output_size, meta.file_size - meta.tensors[4].offset);

    const nlohmann::json json = meta.toJson();
    for (const char* key : {"model_type", "file_size_bytes", "hidden_size", "head_count",
                            "vocab_size", "context_length", "embed_size", "output_size",
                            "tensor_count", "tensors"})
        EXPECT_TRUE(json.contains(key)) << key;
    EXPECT_EQ(json["model_type"], "llama");
    EXPECT_EQ(json["tensors"][1]["offset"], meta.tensors[1].offset);
}

TEST_F(GGUFFiles, RefusesOtherMagicAndVersions) {
    GGUFModelMetadata meta;
    EXPECT_FALSE(GGUFParser::parseMetadata(path("missing.gguf"), meta));
    GGUFWriter::writeFile(path("magic.gguf"), "GGML" + llama().header().substr(4));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("magic.gguf"), meta));
    for (uint32_t version : {1u, 4u}) {
        GGUFWriter(version).write(path("v.gguf"));
        EXPECT_FALSE(GGUFParser::parseMetadata(path("v.gguf"), meta)) << version;
    }
    for (uint32_t version : {2u, 3u}) {
        GGUFWriter(version).write(path("v.gguf"));
        EXPECT_TRUE(GGUFParser::parseMetadata(path("v.gguf"), meta)) << version;
    }
}

TEST_F(GGUFFiles, QuantizationComesFromTheNameFirstWithF16BeforeBF16) {
    const std::pair<const char*, const char*> cases[] = {
        {"model-bf16.gguf", "F16"},          {"Mistral-7B.Q4_K_M.gguf", "Q4_K_M"},
        {"m-q4_k_m.gguf", "Q4_K_M"},        {"m.Q8_0.gguf", "Q8_0"},
        {"m-IQ3_XXS.gguf", "IQ3_XXS"},      {"m-Q5_K_S.gguf", "Q5_K_S"},
    };
    for (const auto& [name, expected] : cases) {
        GGUFWriter().write(path(name));
        GGUFModelMetadata meta;
        ASSERT_TRUE(GGUFParser::parseMetadata(path(name), meta)) << name;
        EXPECT_EQ(meta.quantization, expected) << name;
    }
    GGUFWriter().tensor("blk.0.ffn.weight", {256, 256}, kQ4K, 0).write(path("plain.gguf"));
    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("plain.gguf"), meta));
    EXPECT_EQ(meta.quantization, "Q4_K");
    GGUFWriter().write(path("empty.gguf"));
    ASSERT_TRUE(GGUFParser::parseMetadata(path("empty.gguf"), meta));
    EXPECT_EQ(meta.quantization, "unknown");
}

TEST_F(GGUFFiles, TensorDataStartsAtTheNext32ByteBoundary) {
    // Pad one string so that the header ends at byte 1000 exactly.
    GGUFWriter probe;
    probe.add("pad", GGUFValue::str("")).tensor("t", {1}, kF32, 0);
    const std::size_t base = probe.header().size();
    GGUFWriter writer;
    writer.add("pad", GGUFValue::str(std::string(1000 - base, 'x'))).tensor("t", {1}, kF32, 0);
    ASSERT_EQ(writer.header().size(), 1000u);
    writer.write(path("aligned.gguf"), 64);
    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("aligned.gguf"), meta));
    EXPECT_EQ(meta.tensors[0].offset, 1024u);
}

TEST_F(GGUFFiles, EveryValueTypeIsSkippedOrReadAsItsType) {
    GGUFWriter writer;
    writer.add("a.u8", GGUFValue::u8(200))
        .add("a.i8", GGUFValue::i8(-5))
        .add("a.u16", GGUFValue::u16(65000))
        .add("a.i16", GGUFValue::i16(-300))
        .add("a.u32", GGUFValue::u32(4000000000u))
        .add("a.i32", GGUFValue::i32(-70000))
        .add("a.f32", GGUFValue::f32(1.5f))
        .add("a.bool", GGUFValue::boolean(true))
        .add("a.str", GGUFValue::str("text"))
        .add("a.u64", GGUFValue::u64(1ull << 40))
        .add("a.i64", GGUFValue::i64(-(1ll << 40)))
        .add("a.f64", GGUFValue::f64(2.25))
        .add("a.strings", GGUFValue::array(8, {GGUFValue::str("x"), GGUFValue::str("yz")}))
        .add("a.nested", GGUFValue::array(9, {GGUFValue::array(4, {GGUFValue::u32(1)}),
                                              GGUFValue::array(8, {GGUFValue::str("deep")})}))
        .add("a.empty", GGUFValue::array(6, {}))
        // Numbers of any integer or float type are read into the fields.
        .add("x.block_count", GGUFValue::i16(7))
        .add("x.context_length", GGUFValue::f64(8192.0))
        .add("x.embedding_length", GGUFValue::u8(96))
        .add("general.architecture", GGUFValue::str("after-everything"));
    writer.write(path("types.gguf"));
    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("types.gguf"), meta));
    EXPECT_EQ(meta.block_count, 7);
    EXPECT_EQ(meta.context_length, 8192);
    EXPECT_EQ(meta.embedding_length, 96);
    EXPECT_EQ(meta.architecture, "after-everything");

    // Each value read alone, as text and as a number.
    const std::pair<GGUFValue, std::string> values[] = {
        {GGUFValue::u8(200), "200"},       {GGUFValue::i8(-5), "-5"},
        {GGUFValue::u16(65000), "65000"},  {GGUFValue::i16(-300), "-300"},
        {GGUFValue::u32(4000000000u), "4000000000"}, {GGUFValue::i32(-70000), "-70000"},
        {GGUFValue::f32(1.5f), "1.5"},     {GGUFValue::boolean(true), "true"},
        {GGUFValue::str("text"), "text"},  {GGUFValue::u64(1ull << 40), "1099511627776"},
        {GGUFValue::i64(-(1ll << 40)), "-1099511627776"}, {GGUFValue::f64(2.25), "2.25"},
        {GGUFValue::array(8, {GGUFValue::str("x"), GGUFValue::str("yz")}), "[array of 2]"},
    };
    for (const auto& [value, text] : values) {
        GGUFWriter::writeFile(path("one"), value.bytes + "END!");
        const int fd = ::open(path("one").c_str(), O_RDONLY);
        GGUFReader reader(fd, value.bytes.size() + 4);
        EXPECT_EQ(GGUFParser::readTypedValue(reader, value.type), text);
        EXPECT_EQ(reader.position(), value.bytes.size()) << text;
        GGUFReader again(fd, value.bytes.size() + 4);
        ASSERT_TRUE(GGUFParser::skipTypedValue(again, value.type));
        EXPECT_EQ(again.position(), value.bytes.size()) << text;
        GGUFReader number(fd, value.bytes.size() + 4);
        const int64_t read = GGUFParser::readInt(number, value.type);
        if (text == "-70000") {
            EXPECT_EQ(read, -70000);
        } else if (text == "1.5") {
            EXPECT_EQ(read, 1);
        } else if (text == "text") {
            EXPECT_EQ(read, 0);
        }
        EXPECT_EQ(number.position(), value.bytes.size()) << text;
        ::close(fd);
    }
}

TEST_F(GGUFFiles, AVocabularyArrayCountsAndReadingGoesOnFromItsFirstElement) {
    // The reader takes only the array's header; its first element's bytes
    // are then read as the next key. Here they spell a valid key/value.
    const std::string next_pair = GGUFValue::str("general.name").bytes +
                                  GGUFValue::u32(8).bytes + GGUFValue::str("from-inside").bytes;
    GGUFValue tokens{9, GGUFValue::u32(0).bytes + GGUFValue::u64(50000).bytes + next_pair};
    GGUFWriter writer;
    writer.add("tokenizer.ggml.tokens", tokens).declare(0, 2);
    writer.write(path("vocab.gguf"));
    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("vocab.gguf"), meta));
    EXPECT_EQ(meta.vocab_size, 50000);
    EXPECT_EQ(meta.model_name, "from-inside");
}

TEST_F(GGUFFiles, HostileAndTruncatedHeadersAreRefusedWithoutHarm) {
    GGUFModelMetadata meta;
    const std::string header = llama().header();
    // Every cut short of the whole header.
    for (std::size_t length = 0; length < header.size(); ++length) {
        GGUFWriter::writeFile(path("cut.gguf"), header.substr(0, length));
        EXPECT_FALSE(GGUFParser::parseMetadata(path("cut.gguf"), meta)) << length;
    }
    // Counts and lengths no file could hold.
    GGUFWriter().declare(1ull << 62, 0).write(path("tensors.gguf"));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("tensors.gguf"), meta));
    GGUFWriter().declare(0, ~0ull).write(path("keys.gguf"));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("keys.gguf"), meta));
    GGUFValue long_string{8, GGUFValue::u64(~0ull >> 1).bytes + "abc"};
    GGUFWriter().add("k", long_string).write(path("string.gguf"));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("string.gguf"), meta));
    GGUFValue huge_array{9, GGUFValue::u32(10).bytes + GGUFValue::u64(~0ull / 4).bytes};
    GGUFWriter().add("k", huge_array).write(path("array.gguf"));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("array.gguf"), meta));
    GGUFValue deep = GGUFValue::array(4, {});
    for (int level = 0; level < 100; ++level) deep = GGUFValue::array(9, {deep});
    GGUFWriter().add("k", deep).write(path("deep.gguf"));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("deep.gguf"), meta));
    GGUFWriter().tensor("t", std::vector<uint64_t>(1000, 1), kF32, 0).write(path("dims.gguf"));
    EXPECT_FALSE(GGUFParser::parseMetadata(path("dims.gguf"), meta));

    // Mutations of a valid header: whatever they say, the reader ends.
    std::mt19937 random(20261123);
    for (int round = 0; round < 3000; ++round) {
        std::string mutated = header;
        for (int flips = 1 + round % 4; flips > 0; --flips) {
            const std::size_t at = random() % mutated.size();
            mutated[at] = static_cast<char>(round % 3 == 0 ? 0xff : random() % 256);
        }
        GGUFWriter::writeFile(path("mutated.gguf"), mutated);
        GGUFModelMetadata any;
        if (GGUFParser::parseMetadata(path("mutated.gguf"), any)) {
            EXPECT_LE(any.tensors.size(), 5u);
        }
    }
}

TEST_F(GGUFFiles, AFourGigabyteFileIsReadFromItsHeaderAlone) {
    const uint64_t size = 4ull << 30;
    GGUFWriter::writeFile(path("big-Q4_0.gguf"), llama().header(), size);
    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("big-Q4_0.gguf"), meta));
    EXPECT_EQ(meta.file_size, size);
    EXPECT_EQ(meta.quantization, "Q4_0");
    EXPECT_EQ(meta.output_size, size - meta.tensors[4].offset);
}

// The independent reader, run through node on the same file; empty when
// node or the package is missing.
nlohmann::json referenceReading(const std::string& file) {
    const std::string tools = std::string(VOSTRA_SOURCE_DIR) + "/tests/tools";
    if (!fs::exists(tools + "/node_modules/@huggingface/gguf")) return {};
    const std::string command = "cd '" + tools + "' && node gguf_reference.mjs '" + file + "' 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return {};
    std::string output;
    char buffer[4096];
    while (std::size_t got = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, got);
    ::pclose(pipe);
    nlohmann::json json = nlohmann::json::parse(output, nullptr, false);
    if (json.is_discarded()) ADD_FAILURE() << output;
    return json.is_discarded() ? nlohmann::json() : json;
}

TEST_F(GGUFFiles, AgreesWithAnIndependentReader) {
    GGUFWriter writer = llama();
    writer.add("general.tags", GGUFValue::array(8, {GGUFValue::str("a"), GGUFValue::str("b")}))
        .add("llama.rope.dims", GGUFValue::array(5, {GGUFValue::i32(-1), GGUFValue::i32(2)}))
        .add("general.ok", GGUFValue::boolean(false))
        .add("general.big", GGUFValue::u64(1ull << 50))
        .tensor("blk.1.ffn_up.weight", {64, 128, 2}, 8, 4102000);
    writer.write(path("reference.gguf"), 4300000);
    const nlohmann::json reference = referenceReading(path("reference.gguf"));
    if (reference.is_null()) GTEST_SKIP() << "@huggingface/gguf is not installed in tests/tools";

    GGUFModelMetadata meta;
    ASSERT_TRUE(GGUFParser::parseMetadata(path("reference.gguf"), meta));
    const nlohmann::json& values = reference["metadata"];
    EXPECT_EQ(values["general.architecture"], meta.architecture);
    EXPECT_EQ(values["general.name"], meta.model_name);
    EXPECT_EQ(values["general.file_type"], meta.file_type);
    EXPECT_EQ(values["llama.block_count"], meta.block_count);
    EXPECT_EQ(values["llama.context_length"], meta.context_length);
    EXPECT_EQ(values["llama.attention.head_count_kv"], meta.head_count_kv);
    EXPECT_EQ(values["tensor_count"].get<std::string>(), std::to_string(meta.tensor_count));
    EXPECT_EQ(values["kv_count"].get<std::string>(), std::to_string(meta.metadata_count));
    EXPECT_EQ(reference["tensor_data_offset"].get<std::string>(),
              std::to_string(meta.tensor_data_offset));
    const nlohmann::json& tensors = reference["tensors"];
    ASSERT_EQ(tensors.size(), meta.tensors.size());
    for (std::size_t i = 0; i < meta.tensors.size(); ++i) {
        EXPECT_EQ(tensors[i]["name"], meta.tensors[i].name);
        EXPECT_EQ(tensors[i]["type"], meta.tensors[i].type);
        ASSERT_EQ(tensors[i]["dims"].size(), meta.tensors[i].dims.size());
        for (std::size_t d = 0; d < meta.tensors[i].dims.size(); ++d)
            EXPECT_EQ(tensors[i]["dims"][d].get<std::string>(), std::to_string(meta.tensors[i].dims[d]));
        EXPECT_EQ(std::stoull(tensors[i]["offset"].get<std::string>()) + meta.tensor_data_offset,
                  meta.tensors[i].offset);
    }
}

}  // namespace
}  // namespace vostra::pipeline
