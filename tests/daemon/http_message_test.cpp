#include "daemon/http_message.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "tests/support/http_test_client.h"

namespace vostra::data {
namespace {

// A connected pair: the test writes to `peer`, the code under test reads `server`.
struct SocketPair {
    int server = -1;
    int peer = -1;
    SocketPair() {
        int fds[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        server = fds[0];
        peer = fds[1];
    }
    ~SocketPair() {
        close(server);
        if (peer >= 0) close(peer);
    }
    void closePeer() {
        close(peer);
        peer = -1;
    }
};

TEST(ContentLength, HonoursOnlyTheTwoSpellings) {
    EXPECT_EQ(parseContentLength("POST / HTTP/1.1\r\nContent-Length: 12\r\n"), 12u);
    EXPECT_EQ(parseContentLength("POST / HTTP/1.1\r\ncontent-length:\t 7\r\n"), 7u);
    EXPECT_FALSE(parseContentLength("POST / HTTP/1.1\r\nCONTENT-LENGTH: 7\r\n"));
    EXPECT_FALSE(parseContentLength("POST / HTTP/1.1\r\nContent-length: 7\r\n"));
}

TEST(ContentLength, RejectsValuesThatAreNotUnsignedNumbers) {
    EXPECT_FALSE(parseContentLength("GET / HTTP/1.1\r\nContent-Length: abc\r\n"));
    EXPECT_FALSE(parseContentLength("GET / HTTP/1.1\r\nContent-Length: -5\r\n"));
    EXPECT_FALSE(parseContentLength("GET / HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n"));
    EXPECT_FALSE(parseContentLength("GET / HTTP/1.1\r\nHost: x\r\n"));
}

TEST(ParseRequest, SplitsMethodPathAndBody) {
    std::string method, path, body;
    parseRequest("POST /api/v1/data/query?x=1 HTTP/1.1\r\nHost: a\r\n\r\n{\"a\":1}\r\n\r\nmore", method,
                 path, body);
    EXPECT_EQ(method, "POST");
    EXPECT_EQ(path, "/api/v1/data/query?x=1");
    EXPECT_EQ(body, "{\"a\":1}\r\n\r\nmore");

    parseRequest("garbage", method, path, body);
    EXPECT_EQ(method, "garbage");
    EXPECT_EQ(path, "");
    EXPECT_EQ(body, "");
}

TEST(FormatResponse, CarriesExactlyTheFourHeaderLines) {
    EXPECT_EQ(formatResponse(201, "{}", "application/json"),
              "HTTP/1.1 201 Created\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
              "Connection: close\r\n\r\n{}");
}

TEST(FormatResponse, UsesUnknownForStatusesOutsideTheTable) {
    EXPECT_STREQ(reasonPhrase(405), "Method Not Allowed");
    EXPECT_STREQ(reasonPhrase(503), "Unknown");
    EXPECT_EQ(formatResponse(418, "", "text/plain").rfind("HTTP/1.1 418 Unknown\r\n", 0), 0u);
}

TEST(SendError, WrapsTheMessageInAnErrorObject) {
    SocketPair pair;
    sendError(pair.server, 404, "Not found");
    shutdown(pair.server, SHUT_WR);
    auto response = test::parseResponse(test::readAll(pair.peer, 2000));
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.body, R"({"error":"Not found"})");
}

TEST(ReadRequest, AssemblesHeadersAndBodyArrivingInPieces) {
    SocketPair pair;
    std::thread writer([&] {
        for (const char* piece : {"POST /x HTTP/1.1\r\nConte", "nt-Length: 10\r\n", "\r\n01234",
                                  "56789"}) {
            test::sendAll(pair.peer, piece);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
    });
    std::string raw = readRequest(pair.server);
    writer.join();
    EXPECT_EQ(raw, "POST /x HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789");
}

TEST(ReadRequest, StopsAfterHeadersWhenNoLengthIsDeclared) {
    SocketPair pair;
    test::sendAll(pair.peer, "GET /health HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n");
    // The peer stays open: the reader must not wait for a body it was not promised.
    EXPECT_EQ(readRequest(pair.server), "GET /health HTTP/1.1\r\nCONTENT-LENGTH: 5\r\n\r\n");
}

TEST(ReadRequest, CutsAChunkAtItsFirstNulByte) {
    SocketPair pair;
    std::string request = "POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nab";
    request += '\0';
    request += "cd";
    test::sendAll(pair.peer, request);
    pair.closePeer();
    EXPECT_EQ(readRequest(pair.server), "POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nab");
}

TEST(ReadRequest, ReturnsWhatArrivedWhenThePeerGoesQuiet) {
    SocketPair pair;
    test::sendAll(pair.peer, "POST /x HTTP/1.1\r\nContent-Length: 100\r\n\r\nshort");
    pair.closePeer();
    EXPECT_EQ(readRequest(pair.server), "POST /x HTTP/1.1\r\nContent-Length: 100\r\n\r\nshort");

    SocketPair silent;
    silent.closePeer();
    EXPECT_EQ(readRequest(silent.server), "");
}

}  // namespace
}  // namespace vostra::data
