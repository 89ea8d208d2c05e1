// ScientificConnector against fake provider servers on loopback: the URLs
// it builds, where keys go and that they never show, the rate limit and
// cache sparing the network, the failure texts, the templates, and the
// custom-providers and key files. Providers reach the fakes through the
// base URL override of the custom-providers file.
#include "science/scientific_connector.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "science/science_url.h"
#include "tests/support/daemon_process.h"
#include "tests/support/fake_http_server.h"

namespace vostra::data {
namespace {

using nlohmann::json;
using test::FakeHttpServer;
using test::FakeResponse;
using test::RecordedRequest;

// Whether the raw header block holds `line`, the name compared without case.
bool hasHeader(const RecordedRequest& request, const std::string& line) {
    const std::size_t colon = line.find(':');
    std::string wanted = line;
    std::transform(wanted.begin(), wanted.begin() + colon, wanted.begin(), ::tolower);
    std::istringstream lines(request.headers);
    for (std::string got; std::getline(lines, got);) {
        if (got.ends_with('\r')) got.pop_back();
        const std::size_t at = got.find(':');
        std::transform(got.begin(), got.begin() + at, got.begin(), ::tolower);
        if (got == wanted) return true;
    }
    return false;
}

class Gateway : public ::testing::Test {
protected:
    ~Gateway() override { test::removeTree(dir_); }

    // A connector whose `ids` (and any extra records) answer from the fake
    // server, with keys read from environment_ instead of the process's.
    ScientificConnector& connect(const std::vector<std::string>& ids,
                                 const std::vector<json>& extra = {}) {
        json records = json::array();
        for (const std::string& id : ids)
            records.push_back({{"id", id}, {"base_url", server_.url()}});
        for (const json& record : extra)
            records.push_back(record);
        std::ofstream(providersFile()) << json{{"version", 1}, {"providers", records}};
        ScientificConnector::Options options;
        options.keys_file = keysFile();
        options.providers_file = providersFile();
        options.environment = [this](const std::string& name) -> std::optional<std::string> {
            auto it = environment_.find(name);
            if (it == environment_.end()) return std::nullopt;
            return it->second;
        };
        options.clock = std::ref(clock_);
        connector_ = std::make_unique<ScientificConnector>(std::move(options));
        EXPECT_TRUE(connector_->loadKeys().ok());
        const Status loaded = connector_->loadCustomProviders();
        EXPECT_TRUE(loaded.ok()) << loaded.message;
        return *connector_;
    }

    std::string keysFile() const { return dir_ + "/config/science_api_keys.json"; }
    std::string providersFile() const { return dir_ + "/science_providers.json"; }
    std::vector<RecordedRequest> requests() const { return server_.requestsTo(""); }

    struct Clock {
        std::chrono::steady_clock::time_point now{};
        std::chrono::steady_clock::time_point operator()() const { return now; }
    };

    std::string dir_ = test::makeTempDir("vostra-science");
    FakeHttpServer server_;
    std::map<std::string, std::string> environment_;
    Clock clock_;
    std::unique_ptr<ScientificConnector> connector_;
};

TEST_F(Gateway, GenericQuerySendsEscapedParametersBelowTheBaseUrl) {
    server_.setHandler([](const RecordedRequest&) { return FakeResponse{200, R"({"ok":true})"}; });
    ScientificConnector& science =
        connect({}, {{{"id", "crossref"}, {"base_url", server_.url() + "/api/"}}});
    ScienceRequest request;
    request.provider = "crossref";
    request.endpoint = "works";
    request.query = "spin & glass";
    request.limit = 2;
    request.params = {{"filter", "from/2020=é"}};
    const ScienceResult result = science.execute(request);
    ASSERT_TRUE(result.success) << result.error;
    EXPECT_EQ(result.data, (json{{"ok", true}}));
    EXPECT_EQ(result.status_code, 200);
    EXPECT_FALSE(result.cached);

    ASSERT_EQ(requests().size(), 1u);
    const RecordedRequest sent = requests()[0];
    EXPECT_EQ(sent.method, "GET");
    EXPECT_EQ(sent.path, "/api/works?filter=from%2F2020%3D%C3%A9&limit=2&query=spin%20%26%20glass");
    EXPECT_TRUE(hasHeader(sent, "Accept: application/json")) << sent.headers;
    EXPECT_TRUE(hasHeader(sent, "User-Agent: Vostra-DataWorker/4.1.0")) << sent.headers;

    // A service answering text is passed on as text; a POST carries its body.
    server_.setHandler([](const RecordedRequest&) {
        return FakeResponse{200, ">seq\nACGT", "text/plain"};
    });
    request.method = "POST";
    request.body = R"({"x":1})";
    const ScienceResult text = science.execute(request);
    EXPECT_EQ(text.data, ">seq\nACGT");
    EXPECT_EQ(requests().back().body, R"({"x":1})");
    EXPECT_TRUE(hasHeader(requests().back(), "Content-Type: application/json"));

    request.endpoint = "/works\r\nX-Injected: 1";
    EXPECT_EQ(science.execute(request).kind, ErrorKind::Invalid);
    request.endpoint = "/works";
    request.method = "GET / HTTP/1.1\r\nX-Injected:";
    EXPECT_EQ(science.execute(request).error, "Invalid method: " + request.method);
    EXPECT_EQ(requests().size(), 2u);
}

TEST_F(Gateway, UnknownProvidersAndTemplatesAreNamed) {
    ScientificConnector& science = connect({"uniprot"});
    ScienceRequest request;
    request.provider = "atlantis";
    const ScienceResult unknown = science.execute(request);
    EXPECT_EQ(unknown.error, "Unknown provider: atlantis");
    EXPECT_EQ(unknown.kind, ErrorKind::NotFound);
    EXPECT_EQ(science.executeQuery("atlantis", "search", {}).error, "Unknown provider: atlantis");
    EXPECT_EQ(science.executeQuery("uniprot", "teleport", {}).error,
              "Unknown query template: teleport for provider uniprot");
    EXPECT_TRUE(requests().empty());
}

TEST_F(Gateway, KeyedProviderWithoutItsKeyNamesTheVariableAndSendsNothing) {
    ScientificConnector& science = connect({"nasa", "disgenet"});
    const ScienceResult result = science.nasaApod("2024-01-02");
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.error, "API key required for nasa. Set environment variable NASA_API_KEY");
    EXPECT_EQ(result.kind, ErrorKind::Refused);
    EXPECT_EQ(science.executeQuery("disgenet", "anything", {}).error,
              "Unknown query template: anything for provider disgenet");
    ScienceRequest request;
    request.provider = "disgenet";
    EXPECT_EQ(science.execute(request).error,
              "API key required for disgenet. Set environment variable DISGENET_API_KEY");
    EXPECT_FALSE(science.isAvailable(*science.getProvider("nasa")));
    EXPECT_TRUE(requests().empty());
}

TEST_F(Gateway, KeysGoWhereEachProviderWantsThem) {
    struct Case {
        std::string provider, variable, expected_header, expected_query;
    };
    const std::vector<Case> cases = {
        {"semanticscholar", "S2_API_KEY", "Authorization: Bearer {key}", ""},
        {"disgenet", "DISGENET_API_KEY", "Authorization: Bearer {key}", ""},
        {"ebird", "EBIRD_API_KEY", "x-ebirdapitoken: {key}", ""},
        {"materials", "MP_API_KEY", "X-API-KEY: {key}", ""},
        {"nasa", "NASA_API_KEY", "", "api_key={key}"},
        {"fred", "FRED_API_KEY", "", "api_key={key}"},
    };
    std::vector<std::string> ids;
    for (const Case& c : cases)
        ids.push_back(c.provider);
    for (const std::string source : {"environment", "key file"}) {
        SCOPED_TRACE(source);
        std::map<std::string, std::string> keys;
        for (const Case& c : cases)
            keys[c.variable] = source + "-key";
        if (source == "environment") environment_ = keys;
        ScientificConnector& science = connect(ids);
        if (source == "key file") {
            environment_ = {{"NASA_API_KEY", "shadowed"}};
            ASSERT_TRUE(science.saveKeys(keys).ok());
        }
        for (const Case& c : cases) {
            const std::size_t before = requests().size();
            ScienceRequest request;
            request.provider = c.provider;
            request.endpoint = "/probe";
            request.params = {{"q", source}};
            const ScienceResult result = science.execute(request);
            ASSERT_TRUE(result.success) << c.provider << ": " << result.error;
            ASSERT_EQ(requests().size(), before + 1);
            const RecordedRequest sent = requests().back();
            const std::string key = source + "-key";
            auto withKey = [&](std::string text) {
                return text.replace(text.find("{key}"), 5, escapeUrlComponent(key));
            };
            if (!c.expected_header.empty()) {
                std::string header = c.expected_header;
                header.replace(header.find("{key}"), 5, key);
                EXPECT_TRUE(hasHeader(sent, header)) << c.provider << "\n" << sent.headers;
                EXPECT_EQ(sent.path.find(key), std::string::npos) << sent.path;
            } else {
                EXPECT_NE(sent.path.find(withKey(c.expected_query)), std::string::npos)
                    << sent.path;
                EXPECT_EQ(sent.headers.find(key), std::string::npos) << sent.headers;
            }
        }
        environment_.clear();
    }
}

TEST_F(Gateway, KeysSavedTakeEffectAtOnceAndStayPrivate) {
    ScientificConnector& science = connect({"nasa"});
    EXPECT_EQ(science.nasaApod("2024-01-02").kind, ErrorKind::Refused);
    ASSERT_TRUE(science.setProviderKey("nasa", "first").ok());
    ASSERT_TRUE(science.nasaApod("2024-01-02").success);
    EXPECT_NE(requests().back().path.find("api_key=first"), std::string::npos);

    struct stat info {};
    ASSERT_EQ(stat(keysFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600);
    ASSERT_EQ(stat((dir_ + "/config").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700);

    ASSERT_TRUE(science.saveKeys({{"NASA_API_KEY", "second"}, {"OTHER", "x"}}).ok());
    ASSERT_TRUE(science.nasaApod("2024-01-03").success);
    EXPECT_NE(requests().back().path.find("api_key=second"), std::string::npos);

    ScienceKeys reread(keysFile(), [](const std::string&) { return std::nullopt; });
    ASSERT_TRUE(reread.load().ok());
    EXPECT_EQ(reread.names(), (std::vector<std::string>{"NASA_API_KEY", "OTHER"}));
    EXPECT_EQ(reread.lookup("NASA_API_KEY"), "second");

    ASSERT_TRUE(science.saveKeys({{"NASA_API_KEY", ""}}).ok());  // removes it
    EXPECT_EQ(science.nasaApod("2024-01-04").kind, ErrorKind::Refused);

    // A key file that cannot be written changes nothing in memory either.
    std::filesystem::remove(keysFile());
    std::filesystem::create_directory(keysFile());
    EXPECT_FALSE(science.saveKeys({{"NASA_API_KEY", "third"}}).ok());
    EXPECT_EQ(science.nasaApod("2024-01-05").kind, ErrorKind::Refused);
    EXPECT_EQ(science.keyReport().dump().find("second"), std::string::npos);
}

TEST_F(Gateway, RateLimitRefusesWithoutANetworkCall) {
    ScientificConnector& science =
        connect({}, {{{"id", "crossref"}, {"base_url", server_.url()}, {"rate_limit_rpm", 2}}});
    auto ask = [&](const std::string& words) {
        return science.executeQuery("crossref", "search", {{"query", words}});
    };
    EXPECT_TRUE(ask("one").success);
    EXPECT_TRUE(ask("two").success);
    const ScienceResult refused = ask("three");
    EXPECT_EQ(refused.error, "Rate limit exceeded for crossref");
    EXPECT_EQ(refused.kind, ErrorKind::QuotaExceeded);
    EXPECT_EQ(requests().size(), 2u);
    clock_.now += std::chrono::minutes(1);
    EXPECT_TRUE(ask("three").success);
    EXPECT_EQ(requests().size(), 3u);
}

TEST_F(Gateway, CacheAnswersARepeatedRequestWithoutANetworkCall) {
    int served = 0;
    server_.setHandler([&](const RecordedRequest&) {
        return FakeResponse{200, json{{"n", ++served}}.dump()};
    });
    ScientificConnector& science = connect({"uniprot"});
    const ScienceResult first = science.uniprotEntry("P01308");
    const ScienceResult second = science.uniprotEntry("P01308");
    EXPECT_FALSE(first.cached);
    EXPECT_TRUE(second.cached);
    EXPECT_EQ(second.data, first.data);
    EXPECT_EQ(requests().size(), 1u);
    EXPECT_FALSE(science.uniprotEntry("P69905").cached);

    clock_.now += std::chrono::seconds(300);
    EXPECT_FALSE(science.uniprotEntry("P01308").cached) << "past its lifetime";
    EXPECT_EQ(requests().size(), 3u);

    // Failures and POSTs are not kept.
    server_.setHandler([](const RecordedRequest&) { return FakeResponse{500, "{}"}; });
    EXPECT_FALSE(science.uniprotEntry("BROKEN").success);
    EXPECT_FALSE(science.uniprotEntry("BROKEN").success);
    ScienceRequest post;
    post.provider = "uniprot";
    post.method = "POST";
    server_.setHandler([](const RecordedRequest&) { return FakeResponse{}; });
    EXPECT_FALSE(science.execute(post).cached);
    EXPECT_FALSE(science.execute(post).cached);
    EXPECT_EQ(requests().size(), 7u);
}

TEST_F(Gateway, FailuresGiveExactTextsWithTheKeyMasked) {
    server_.setHandler([](const RecordedRequest&) {
        return FakeResponse{403, R"({"error":"no"})"};
    });
    environment_ = {{"NASA_API_KEY", "sekrit-123"}};
    ScientificConnector& science = connect({"nasa"});
    const ScienceResult denied = science.nasaApod("2024-01-02");
    EXPECT_EQ(denied.error,
              "HTTP 403 for " + server_.url() + "/planetary/apod?date=2024-01-02&api_key=***");
    EXPECT_EQ(denied.status_code, 403);
    EXPECT_EQ(denied.kind, ErrorKind::Internal);
    EXPECT_EQ(denied.toJson().dump().find("sekrit"), std::string::npos);

    const int closed = test::freePort();
    connect({}, {{{"id", "nasa"}, {"base_url", "http://127.0.0.1:" + std::to_string(closed)}}});
    const ScienceResult unreachable = connector_->nasaApod("2024-01-02");
    EXPECT_EQ(unreachable.kind, ErrorKind::Unavailable);
    EXPECT_EQ(unreachable.status_code, 0);
    EXPECT_TRUE(
        unreachable.error.starts_with("Request to http://127.0.0.1:" + std::to_string(closed) +
                                      "/planetary/apod?date=2024-01-02&api_key=*** failed: "))
        << unreachable.error;
    EXPECT_TRUE(unreachable.error.ends_with(" (curl error 7)")) << unreachable.error;
    EXPECT_EQ(unreachable.error.find("sekrit"), std::string::npos);
}

TEST_F(Gateway, TemplatesFillTheirPlaceholdersAndMapResults) {
    server_.setHandler([](const RecordedRequest& request) {
        if (request.path.starts_with("/uniprotkb/search"))
            return FakeResponse{200, R"({"results":[{"primaryAccession":"P01308",
                "proteinDescription":{"recommendedName":{"fullName":{"value":"Insulin"}}}}]})"};
        return FakeResponse{};
    });
    environment_ = {{"S2_API_KEY", "k"}};
    ScientificConnector& science =
        connect({"uniprot", "ncbi", "usgs", "semanticscholar", "crossref"});

    const ScienceResult found =
        science.executeQuery("uniprot", "search", {{"query", "insulin human"}});
    ASSERT_TRUE(found.success) << found.error;
    EXPECT_EQ(requests().back().path,
              "/uniprotkb/search?format=json&query=insulin%20human&size=10");
    EXPECT_EQ(found.results, json::parse(R"([{"id":"P01308","title":"Insulin"}])"));

    // Caller parameters override the template's; unfilled ones are left out.
    environment_ = {{"NCBI_API_KEY", "n"}, {"S2_API_KEY", "k"}};
    ASSERT_TRUE(
        science.executeQuery("ncbi", "search", {{"query", "brca1"}, {"db", "gene"}, {"limit", "3"}})
            .success);
    EXPECT_EQ(requests().back().path,
              "/esearch.fcgi?db=gene&retmax=3&retmode=json&term=brca1&api_key=n");
    ASSERT_TRUE(science.executeQuery("usgs", "search", {{"minmagnitude", "6"}}).success);
    EXPECT_EQ(requests().back().path,
              "/fdsnws/event/1/query?format=geojson&limit=10&minmagnitude=6");
    EXPECT_EQ(science.executeQuery("uniprot", "lookup", {}).kind, ErrorKind::Invalid);

    // A POST template carries its body, values JSON-escaped.
    ASSERT_TRUE(science.executeQuery("semanticscholar", "batch", {{"query", "a\"b"}}).success);
    EXPECT_EQ(requests().back().method, "POST");
    EXPECT_EQ(requests().back().body, R"({"ids":["a\"b"]})");

    // execute() runs a template its endpoint names.
    ScienceRequest request;
    request.provider = "crossref";
    request.endpoint = "search";
    request.query = "spin";
    request.limit = 5;
    ASSERT_TRUE(science.execute(request).success);
    EXPECT_EQ(requests().back().path, "/works?query=spin&rows=5");
}

// Every route's URL is checked in the route tests; here what the calls
// themselves decide: escaping, defaults and refused dates.
TEST_F(Gateway, ConvenienceCallsEscapeTheirPartsAndCheckTheirDates) {
    environment_ = {{"NASA_API_KEY", "n"}, {"NCBI_API_KEY", "c"}};
    ScientificConnector& s = connect({"nasa", "usgs", "noaa", "ncbi", "uniprot", "pubchem"});
    const std::pair<std::function<ScienceResult()>, std::string> cases[] = {
        {[&] { return s.uniprotEntry("../admin"); }, "/uniprotkb/..%2Fadmin?format=json"},
        {[&] { return s.pubchemCompound("acetic acid"); }, "/compound/name/acetic%20acid/JSON"},
        {[&] { return s.pubchemProperties("a/b", "MolecularWeight,XLogP"); },
         "/compound/name/a%2Fb/property/MolecularWeight,XLogP/JSON"},
        {[&] { return s.ncbiFetch("protein", "1,2"); },
         "/esummary.fcgi?db=protein&id=1%2C2&retmode=json&api_key=c"},
        {[&] { return s.noaaWeather(39.7456, -97.0892); }, "/points/39.7456,-97.0892"},
        {[&] { return s.nasaApod("2024-02-29"); }, "/planetary/apod?date=2024-02-29&api_key=n"},
    };
    for (const auto& [call, path] : cases) {
        const ScienceResult result = call();
        ASSERT_TRUE(result.success) << path << ": " << result.error;
        EXPECT_EQ(requests().back().path, path);
    }
    EXPECT_EQ(s.nasaApod("2024-02-30").error, "Invalid date: 2024-02-30");
    EXPECT_EQ(s.nasaNeo("2024-1-1", "").error, "Invalid start date: 2024-1-1");
    EXPECT_EQ(s.usgsEarthquakes("2024-01-01", "", 1, 1).error, "Invalid start time: 2024-01-01");
    EXPECT_EQ(s.noaaWeather(91, 0).kind, ErrorKind::Invalid);
    EXPECT_EQ(s.uniprotEntry("").error, "Missing accession");
    EXPECT_EQ(requests().size(), std::size(cases));

    // Without dates, today's and the last day's (UTC) are sent.
    ASSERT_TRUE(s.nasaApod("").success);
    EXPECT_NE(requests().back().path.find("date=20"), std::string::npos);
    ASSERT_TRUE(s.usgsEarthquakes("", "", 5, 1).success);
    EXPECT_NE(requests().back().path.find("starttime=20"), std::string::npos);
}

TEST_F(Gateway, CustomProvidersFileOverridesAddsAndIsWrittenBack) {
    ScientificConnector& science = connect(
        {"nasa"},
        {{{"id", "lab"}, {"name", "Lab"}, {"base_url", server_.url()}, {"category", "physics"}}});
    const ScienceProvider nasa = *science.getProvider("nasa");
    EXPECT_EQ(nasa.base_url, server_.url());
    EXPECT_EQ(nasa.auth.env_var, "NASA_API_KEY") << "the rest of the built-in record stays";
    EXPECT_FALSE(nasa.queries.empty());
    EXPECT_EQ(science.providerCount(), 201u);
    EXPECT_EQ(science.listProviders().back().id, "lab");

    // Added over the API: its own id only, and no environment variable.
    EXPECT_EQ(science.addCustomProvider({{"id", "nasa"}, {"base_url", "https://x"}}).kind,
              ErrorKind::Conflict);
    EXPECT_EQ(science.addCustomProvider({{"id", "bad"}, {"base_url", "file:///etc"}}).kind,
              ErrorKind::Invalid);
    // Named like a key variable, it would be handed that key.
    EXPECT_EQ(
        science.addCustomProvider({{"id", "NASA_API_KEY"}, {"base_url", server_.url()}}).message,
        "Invalid provider id: NASA_API_KEY");
    environment_ = {{"AWS_SECRET_ACCESS_KEY", "aws-secret"}};
    ASSERT_TRUE(science
                    .addCustomProvider(
                        {{"id", "thief"},
                         {"base_url", server_.url()},
                         {"auth", {{"type", "api_key"}, {"env_var", "AWS_SECRET_ACCESS_KEY"}}}})
                    .ok());
    ScienceRequest request;
    request.provider = "thief";
    EXPECT_EQ(science.execute(request).error,
              "API key required for thief. Save it under the key name thief");
    EXPECT_TRUE(requests().empty());

    const json file = json::parse(std::ifstream(providersFile()));
    EXPECT_EQ(file["version"], 1);
    ASSERT_EQ(file["providers"].size(), 3u);
    EXPECT_EQ(file["providers"][0], (json{{"id", "nasa"}, {"base_url", server_.url()}}));
    EXPECT_FALSE(file["providers"][2]["auth"].contains("env_var"));

    EXPECT_EQ(science.removeCustomProvider("uniprot").kind, ErrorKind::Refused);
    EXPECT_EQ(science.removeCustomProvider("nowhere").kind, ErrorKind::NotFound);
    ASSERT_TRUE(science.removeCustomProvider("thief").ok());
    EXPECT_FALSE(science.getProvider("thief"));
    EXPECT_EQ(json::parse(std::ifstream(providersFile()))["providers"].size(), 2u);

    std::ofstream(providersFile())
        << R"({"version":1,"providers":[{"id":"nasa","rate_limit_rpm":"x"}]})";
    EXPECT_EQ(science.loadCustomProviders().kind, ErrorKind::Invalid);
    std::ofstream(providersFile()) << "[1,2]";
    EXPECT_EQ(science.loadCustomProviders().kind, ErrorKind::Invalid);
    EXPECT_EQ(science.getProvider("nasa")->base_url, server_.url()) << "a bad file changes nothing";
}

TEST_F(Gateway, AuthHeadersFollowTheAuthRecord) {
    environment_ = {{"B", "token"}, {"P", "user:pass"}, {"H", "hk"}, {"Q", "qk"}};
    ScientificConnector& science = connect({});
    auto headers = [&](AuthType type, std::string param, std::string header, std::string variable) {
        ScienceProvider provider;
        provider.id = "p";
        provider.auth = {type, std::move(param), std::move(header), std::move(variable)};
        return science.getAuthHeaders(provider);
    };
    using Lines = std::vector<std::string>;
    EXPECT_EQ(headers(AuthType::Bearer, "", "", "B"), Lines{"Authorization: Bearer token"});
    EXPECT_EQ(headers(AuthType::Basic, "", "", "P"), Lines{"Authorization: Basic dXNlcjpwYXNz"});
    EXPECT_EQ(headers(AuthType::ApiKey, "", "", "H"), Lines{"X-API-Key: hk"});
    EXPECT_EQ(headers(AuthType::ApiKey, "", "X-Token", "H"), Lines{"X-Token: hk"});
    EXPECT_EQ(headers(AuthType::ApiKey, "api_key", "", "Q"), Lines{});
    EXPECT_EQ(headers(AuthType::Bearer, "", "", "MISSING"), Lines{});
    EXPECT_EQ(headers(AuthType::None, "", "", "B"), Lines{});
}

}  // namespace
}  // namespace vostra::data
