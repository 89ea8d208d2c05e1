#include "vector/text_chunker.h"

#include <algorithm>

namespace vostra::data {
namespace {

bool isSentenceEnd(char c) {
    return c == '\n' || c == '.' || c == '!' || c == '?';
}

bool hasVisibleText(const std::string& sentence) {
    return sentence.find_first_not_of(" \t\n\r") != std::string::npos;
}

std::vector<std::string> splitSentences(const std::string& text) {
    std::vector<std::string> sentences;
    std::string current;
    for (char c : text) {
        current += c;
        if (!isSentenceEnd(c)) continue;
        if (hasVisibleText(current)) sentences.push_back(std::move(current));
        current.clear();
    }
    if (hasVisibleText(current)) sentences.push_back(std::move(current));
    return sentences;
}

}  // namespace

std::vector<std::string> semanticChunks(const std::string& text, int32_t chunk_size,
                                        int32_t chunk_overlap) {
    std::vector<std::string> chunks;
    std::string current;
    for (const std::string& sentence : splitSentences(text)) {
        const auto length = static_cast<int64_t>(current.size() + sentence.size());
        if (!current.empty() && length > chunk_size) {
            chunks.push_back(std::move(current));
            const std::string& emitted = chunks.back();
            const auto overlap = static_cast<std::size_t>(std::max(0, chunk_overlap));
            current = overlap > 0 && overlap < emitted.size()
                          ? emitted.substr(emitted.size() - overlap)
                          : std::string();
        }
        current += sentence;
    }
    if (!current.empty()) chunks.push_back(std::move(current));
    return chunks;
}

std::vector<std::string> fixedLengthChunks(const std::string& text, int32_t chunk_size,
                                           int32_t chunk_overlap) {
    if (text.empty()) return {};
    if (chunk_size < 1) return {text};
    const auto size = static_cast<std::size_t>(chunk_size);
    const int64_t step_setting = int64_t{chunk_size} - chunk_overlap;
    const auto step = step_setting > 0 ? static_cast<std::size_t>(step_setting) : size;

    std::vector<std::string> chunks;
    for (std::size_t start = 0; start < text.size(); start += step) {
        const std::size_t length = std::min(size, text.size() - start);
        chunks.push_back(text.substr(start, length));
        if (start + length >= text.size()) break;
    }
    return chunks;
}

}  // namespace vostra::data
