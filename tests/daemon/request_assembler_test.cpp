// Building requests from pieces as they arrive: lengths, chunked bodies,
// "Expect: 100-continue", the header cap and absolute targets.
#include "daemon/request_assembler.h"

#include <gtest/gtest.h>

namespace vostra::data {
namespace {

using Progress = RequestAssembler::Progress;

// Feeds `pieces` in order; returns the last progress.
Progress feedAll(RequestAssembler& assembler, std::initializer_list<std::string_view> pieces) {
    Progress progress = Progress::NeedMore;
    for (std::string_view piece : pieces) progress = assembler.feed(piece);
    return progress;
}

TEST(RequestAssembler, WaitsForTheDeclaredLengthAndKeepsTheHeadApart) {
    RequestAssembler assembler;
    EXPECT_EQ(feedAll(assembler, {"PUT /a HTTP/1.1\r\ncontent-length: 5\r", "\n\r\nab"}),
              Progress::NeedMore);
    EXPECT_EQ(assembler.declaredLength(), 5u);
    EXPECT_EQ(assembler.feed("cde"), Progress::Complete);
    const HttpRequest request = assembler.finish(7);
    EXPECT_EQ(request.fd, 7);
    EXPECT_EQ(request.method + " " + request.path, "PUT /a");
    EXPECT_EQ(request.raw, "PUT /a HTTP/1.1\r\ncontent-length: 5\r\n\r\n");
    EXPECT_EQ(request.body, "abcde");
    EXPECT_TRUE(assembler.empty());

    // Capitals are not a spelling the server knows: no body is awaited.
    EXPECT_EQ(assembler.feed("PUT /a HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n"), Progress::Complete);
}

TEST(RequestAssembler, DecodesChunkedBodiesSplitAnywhere) {
    const std::string wire =
        "POST /x HTTP/1.1\r\ntransfer-encoding: Chunked\r\n\r\n"
        "4;ext=1\r\nWiki\r\n5\r\npedia\r\nE\r\n in\r\n\r\nchunks.\r\n0\r\nX-Trailer: y\r\n\r\n";
    // Every split point, one byte at a time through the whole request.
    for (std::size_t cut = 1; cut < wire.size(); ++cut) {
        RequestAssembler assembler;
        const Progress first = assembler.feed(std::string_view(wire).substr(0, cut));
        const Progress last = assembler.feed(std::string_view(wire).substr(cut));
        ASSERT_EQ(last, Progress::Complete) << cut << " " << static_cast<int>(first);
        EXPECT_EQ(assembler.finish(0).body, "Wikipedia in\r\n\r\nchunks.") << cut;
    }
}

TEST(RequestAssembler, RefusesBrokenChunksAndOversizedHeads) {
    for (const char* body : {"zz\r\nab\r\n0\r\n\r\n", "2\r\nabX\r\n", "-1\r\n"}) {
        RequestAssembler assembler;
        EXPECT_EQ(assembler.feed(std::string("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n") + body),
                  Progress::BadChunking)
            << body;
    }
    RequestAssembler huge;
    const std::string header = "X-Pad: " + std::string(RequestAssembler::kMaxHeaderBytes, 'a');
    EXPECT_EQ(huge.feed("GET / HTTP/1.1\r\n" + header), Progress::HeadTooLarge);
    RequestAssembler ended_late;
    EXPECT_EQ(ended_late.feed("GET / HTTP/1.1\r\n" + header + "\r\n\r\n"), Progress::HeadTooLarge);
}

TEST(RequestAssembler, AsksForContinueOnceAndOnlyWithABodyToCome) {
    RequestAssembler waiting;
    waiting.feed("PUT /f HTTP/1.1\r\nContent-Length: 3\r\nexpect: 100-Continue\r\n\r\n");
    EXPECT_TRUE(waiting.takeContinue());
    EXPECT_FALSE(waiting.takeContinue());
    RequestAssembler sent_anyway;
    EXPECT_EQ(sent_anyway.feed("PUT /f HTTP/1.1\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\nabc"),
              Progress::Complete);
    EXPECT_FALSE(sent_anyway.takeContinue());
}

TEST(RequestAssembler, ReducesAbsoluteTargetsToTheirPath) {
    EXPECT_EQ(originFormOf("http://host:8892/health"), "/health");
    EXPECT_EQ(originFormOf("HTTPS://h/a/b?c=d://e"), "/a/b?c=d://e");
    EXPECT_EQ(originFormOf("http://host"), "/");
    EXPECT_EQ(originFormOf("/x?u=http://y/z"), "/x?u=http://y/z");
    RequestAssembler assembler;
    assembler.feed("GET http://localhost:8892/info HTTP/1.1\r\n\r\n");
    EXPECT_EQ(assembler.finish(0).path, "/info");
}

}  // namespace
}  // namespace vostra::data
