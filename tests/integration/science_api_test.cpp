// The science gateway of the real binary against a fake provider: keys
// loaded from the key file at start-up and from the environment, a key
// saved over the API used by the next request, and no key in any answer,
// log line or world-readable file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/fake_http_server.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

TEST(ScienceApi, KeysFromFileEnvironmentAndApiReachTheProviderAndNothingElse) {
    // Set before any thread of the test runs; the daemon inherits it.
    setenv("EBIRD_API_KEY", "env-secret", 1);
    FakeHttpServer provider;
    provider.setHandler([](const RecordedRequest& request) {
        if (request.path.starts_with("/denied")) return FakeResponse{403, "{}"};
        return FakeResponse{200, R"({"title":"A galaxy"})"};
    });
    const std::string dir = makeTempDir("vostra-science-api");
    const std::string keys_file = dir + "/keys/science_api_keys.json";
    const std::string providers_file = dir + "/providers.json";
    std::filesystem::create_directories(dir + "/keys");
    std::ofstream(keys_file) << R"({"NASA_API_KEY":"file-secret"})";
    std::ofstream(providers_file) << json{{"version", 1},
                                          {"providers",
                                           {{{"id", "nasa"}, {"base_url", provider.url()}},
                                            {{"id", "ebird"}, {"base_url", provider.url()}}}}};

    DaemonProcess daemon(
        {"--science-keys-file", keys_file, "--science-providers-file", providers_file});
    ASSERT_TRUE(daemon.ready()) << daemon.stderrText();
    EXPECT_NE(daemon.stdoutText().find("[DataDaemon] Loaded 1 API keys from " + keys_file),
              std::string::npos)
        << daemon.stdoutText();
    EXPECT_NE(daemon.stdoutText().find(
                  "[DataDaemon] Scientific data connector initialized with 200 providers"),
              std::string::npos);
    std::string answers;
    auto call = [&](const std::string& method, const std::string& path,
                    const std::string& body = "") {
        HttpResponse answer = request(daemon.port(), method, path, body);
        answers += answer.raw;
        return answer;
    };

    const HttpResponse apod = call("GET", "/api/v1/science/nasa/apod?date=2024-01-02");
    ASSERT_EQ(apod.status, 200) << apod.body;
    EXPECT_EQ(apod.json()["data"]["title"], "A galaxy");
    EXPECT_EQ(provider.requestsTo("").back().path,
              "/planetary/apod?date=2024-01-02&api_key=file-secret");

    ASSERT_EQ(call("POST", "/api/v1/science/query",
                   R"({"provider":"ebird","endpoint":"/data/obs/geo/recent","params":{"lat":52}})")
                  .status,
              200);
    EXPECT_NE(provider.requestsTo("").back().headers.find("x-ebirdapitoken: env-secret"),
              std::string::npos);

    ASSERT_EQ(call("POST", "/api/v1/science/api-keys", R"({"keys":{"NASA_API_KEY":"api-secret"}})")
                  .json()["message"],
              "API keys saved");
    ASSERT_EQ(call("GET", "/api/v1/science/nasa/apod?date=2024-01-03").status, 200);
    EXPECT_EQ(provider.requestsTo("").back().path,
              "/planetary/apod?date=2024-01-03&api_key=api-secret");
    struct stat info {};
    ASSERT_EQ(stat(keys_file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600);

    const HttpResponse denied =
        call("POST", "/api/v1/science/query", R"({"provider":"nasa","endpoint":"/denied"})");
    EXPECT_EQ(denied.outcome(), "502 HTTP 403 for " + provider.url() + "/denied?api_key=***");
    call("GET", "/api/v1/science/api-keys");
    call("GET", "/api/v1/science/providers");
    EXPECT_EQ(daemon.stop(), 0);
    for (const std::string& text : {answers, daemon.stdoutText(), daemon.stderrText()})
        for (const char* secret : {"file-secret", "env-secret", "api-secret"})
            EXPECT_EQ(text.find(secret), std::string::npos) << secret;
    unsetenv("EBIRD_API_KEY");
    removeTree(dir);
}

}  // namespace
}  // namespace vostra::test
