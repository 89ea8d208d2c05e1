// Cutting ingested text into chunks before it is embedded: by sentences
// packed up to a size, or in fixed-length slices. Lengths count bytes, so
// a cut may split a multi-byte character; JSON answers show such bytes as
// "?". Pure functions; thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vostra::data {

// Sentences end after '\n', '.', '!' or '?' (the mark stays); sentences of
// white space only are dropped. Sentences are packed in order, joined with
// nothing; a chunk is emitted when the next sentence would take it past
// `chunk_size`, and the next chunk starts with the emitted chunk's last
// `chunk_overlap` bytes when that is positive and shorter than the chunk.
// A sentence longer than `chunk_size` is a chunk of its own.
std::vector<std::string> semanticChunks(const std::string& text, int32_t chunk_size,
                                        int32_t chunk_overlap);

// Slices of `chunk_size` bytes starting every `chunk_size` - `chunk_overlap`
// bytes, the last one ending at the end of the text. Settings that would
// never advance (`chunk_overlap` not below `chunk_size`) advance by whole
// chunks instead, and a `chunk_size` below 1 gives the text as one chunk,
// so no setting can hang a request.
std::vector<std::string> fixedLengthChunks(const std::string& text, int32_t chunk_size,
                                           int32_t chunk_overlap);

}  // namespace vostra::data
