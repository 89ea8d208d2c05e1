// The science routes answered in process, with the providers they call
// pointed at a fake server: statuses and messages, the key routes that
// tell which keys are set but never a value, and each convenience route's
// upstream URL.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/fake_http_server.h"
#include "tests/support/in_process_daemon.h"

namespace vostra::test {
namespace {

using nlohmann::json;

constexpr const char* kConvenienceProviders[] = {"nasa", "usgs",    "noaa",      "ncbi", "uniprot",
                                                 "pdb",  "pubchem", "materials", "cern", "gwosc"};

class ScienceRoutes : public ::testing::Test {
protected:
    ScienceRoutes()
        : daemon_([this](data::DataDaemonConfig& config) {
              // The fixture's folder is made by then; the file goes beside its defaults.
              json records = json::array();
              for (const char* id : kConvenienceProviders)
                  records.push_back({{"id", id}, {"base_url", upstream_.url()}});
              records.push_back(
                  {{"id", "crossref"}, {"base_url", upstream_.url()}, {"rate_limit_rpm", 2}});
              std::filesystem::create_directories(
                  std::filesystem::path(config.science_providers_file).parent_path());
              std::ofstream(config.science_providers_file)
                  << json{{"version", 1}, {"providers", records}};
              keys_file_ = config.science_keys_file;
          }) {}

    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "") {
        return daemon_.call(method, path, body);
    }
    std::string lastPath() const { return upstream_.requestsTo("").back().path; }

    FakeHttpServer upstream_;
    std::string keys_file_;
    InProcessDaemon daemon_;
};

TEST_F(ScienceRoutes, ListsEveryProviderWithItsAvailability) {
    const HttpResponse connectors = call("GET", "/api/v1/science/connectors");
    ASSERT_EQ(connectors.status, 200);
    const json listed = connectors.json();
    EXPECT_EQ(listed["count"], 200);
    EXPECT_EQ(listed["connectors"][0],
              (json{{"id", "nasa"},
                    {"name", "NASA"},
                    {"description", "NASA Open APIs (APOD, near-Earth objects, Mars rovers)"},
                    {"category", "space"},
                    {"available", false}}));
    EXPECT_EQ(listed["connectors"][1]["available"], true);

    const json providers = call("GET", "/api/v1/science/providers").json();
    EXPECT_EQ(providers["count"], 200);
    EXPECT_EQ(providers["providers"][0]["base_url"], upstream_.url());
    EXPECT_EQ(providers["providers"][0]["auth"]["env_var"], "NASA_API_KEY");
    EXPECT_EQ(call("GET", "/api/v1/science/providers/uniprot").json()["queries"][0]["name"],
              "search");
    EXPECT_EQ(call("GET", "/api/v1/science/providers/atlantis").outcome(),
              "404 Unknown provider: atlantis");
}

TEST_F(ScienceRoutes, KeyRoutesSayWhichKeysAreSetButNeverTheirValues) {
    EXPECT_EQ(call("POST", "/api/v1/science/api-keys", R"({"nasa":"x"})").outcome(),
              "400 Missing 'keys' object");
    EXPECT_EQ(call("POST", "/api/v1/science/api-keys", R"({"keys":{"NASA_API_KEY":7}})").status,
              400);
    const HttpResponse saved =
        call("POST", "/api/v1/science/api-keys",
             R"({"keys":{"NASA_API_KEY":"n-secret","S2_API_KEY":"s-secret"}})");
    ASSERT_EQ(saved.status, 200) << saved.body;
    EXPECT_EQ(saved.json()["message"], "API keys saved");

    const HttpResponse report = call("GET", "/api/v1/science/api-keys");
    ASSERT_EQ(report.status, 200);
    EXPECT_EQ(report.json()["keys"], (json{"NASA_API_KEY", "S2_API_KEY"}));
    EXPECT_EQ(report.json()["providers"][0], (json{{"id", "nasa"},
                                                   {"key_name", "NASA_API_KEY"},
                                                   {"required", true},
                                                   {"present", true},
                                                   {"source", "file"}}));
    EXPECT_EQ(report.json()["providers"][1]["present"], false);
    for (const char* path :
         {"/api/v1/science/api-keys", "/api/v1/science/providers", "/api/v1/science/connectors"})
        EXPECT_EQ(call("GET", path).raw.find("-secret"), std::string::npos) << path;

    struct stat info {};
    ASSERT_EQ(stat(keys_file_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600);

    // The key takes effect at once, in the query string its record names.
    ASSERT_EQ(call("GET", "/api/v1/science/nasa/apod?date=2024-01-02").status, 200);
    EXPECT_EQ(lastPath(), "/planetary/apod?date=2024-01-02&api_key=n-secret");

    // Per provider, under its variable's name.
    const HttpResponse auth =
        call("POST", "/api/v1/science/providers/nasa/auth", R"({"api_key":"n-other"})");
    EXPECT_EQ(auth.json(),
              (json{{"status", "saved"}, {"provider", "nasa"}, {"key_name", "NASA_API_KEY"}}));
    ASSERT_EQ(call("GET", "/api/v1/science/nasa/apod?date=2024-01-03").status, 200);
    EXPECT_EQ(lastPath(), "/planetary/apod?date=2024-01-03&api_key=n-other");
    EXPECT_EQ(call("POST", "/api/v1/science/providers/nasa/auth", "{}").outcome(),
              "400 Missing 'api_key'");
    EXPECT_EQ(
        call("POST", "/api/v1/science/providers/atlantis/auth", R"({"api_key":"k"})").outcome(),
        "404 Unknown provider: atlantis");

    std::filesystem::remove(keys_file_);
    std::filesystem::create_directory(keys_file_);
    EXPECT_EQ(call("POST", "/api/v1/science/api-keys", R"({"keys":{"A":"b"}})").outcome(),
              "500 Failed to save API keys to file");
}

TEST_F(ScienceRoutes, QueryRouteAnswersTheResultRecordWithAStatusPerFailure) {
    upstream_.setHandler([](const RecordedRequest& request) {
        if (request.path.starts_with("/forbidden")) return FakeResponse{403, "{}"};
        return FakeResponse{200, R"({"message":{"items":[]}})"};
    });
    const HttpResponse found =
        call("POST", "/api/v1/science/query",
             R"({"provider":"crossref","search":"spin glass","max_results":3})");
    ASSERT_EQ(found.status, 200) << found.body;
    EXPECT_EQ(found.json()["success"], true);
    EXPECT_EQ(found.json()["status_code"], 200);
    EXPECT_EQ(found.json()["results"], json::array());
    EXPECT_EQ(lastPath(), "/works?query=spin%20glass&rows=3");

    const HttpResponse upstream_failed =
        call("POST", "/api/v1/science/query",
             R"({"provider":"crossref","endpoint":"/forbidden","term":"x","params":{"n":1}})");
    EXPECT_EQ(upstream_failed.outcome(),
              "502 HTTP 403 for " + upstream_.url() + "/forbidden?n=1&query=x");
    EXPECT_EQ(upstream_failed.json()["status_code"], 403);
    EXPECT_EQ(call("POST", "/api/v1/science/query", R"({"provider":"crossref"})").outcome(),
              "429 Rate limit exceeded for crossref");

    EXPECT_EQ(call("POST", "/api/v1/science/query", R"({"provider":"atlantis"})").outcome(),
              "404 Unknown provider: atlantis");
    EXPECT_EQ(
        call("POST", "/api/v1/science/query", R"({"provider":"nasa","endpoint":"/x"})").outcome(),
        "403 API key required for nasa. Set environment variable NASA_API_KEY");
    EXPECT_EQ(call("POST", "/api/v1/science/query", R"({"endpoint":"/x"})").outcome(),
              "400 Missing 'provider'");
    EXPECT_EQ(call("POST", "/api/v1/science/query", "[]").status, 400);
    EXPECT_EQ(upstream_.requestsTo("").size(), 2u);
}

TEST_F(ScienceRoutes, ConvenienceRoutesReachTheirServicesUrls) {
    ASSERT_EQ(call("POST", "/api/v1/science/api-keys",
                   R"({"keys":{"NASA_API_KEY":"n","NCBI_API_KEY":"c","MP_API_KEY":"m"}})")
                  .status,
              200);
    const std::pair<std::string, std::string> cases[] = {
        {"nasa/apod?date=2024-01-02", "/planetary/apod?date=2024-01-02&api_key=n"},
        {"nasa/neo?start_date=2024-01-01&end_date=2024-01-02",
         "/neo/rest/v1/feed?end_date=2024-01-02&start_date=2024-01-01&api_key=n"},
        {"nasa/mars-rover?sol=12", "/mars-photos/api/v1/rovers/curiosity/photos?sol=12&api_key=n"},
        {"usgs/earthquakes?starttime=2024-01-01T00:00:00&endtime=2024-01-01T06:00:00",
         "/fdsnws/event/1/query?endtime=2024-01-01T06%3A00%3A00&format=geojson&limit=100"
         "&minmagnitude=2.5&starttime=2024-01-01T00%3A00%3A00"},
        {"noaa/weather?lat=40.1&lon=-105", "/points/40.1,-105"},
        {"ncbi/search?term=brca1",
         "/esearch.fcgi?db=nucleotide&retmax=20&retmode=json&term=brca1&api_key=c"},
        {"ncbi/fetch/NM_007294",
         "/esummary.fcgi?db=nucleotide&id=NM_007294&retmode=json&api_key=c"},
        {"ncbi/fetch/NM_007294?rettype=fasta",
         "/efetch.fcgi?db=nucleotide&id=NM_007294&retmode=text&rettype=fasta&api_key=c"},
        {"pubmed/search?term=crispr&retmax=5",
         "/esearch.fcgi?db=pubmed&retmax=5&retmode=json&term=crispr&api_key=c"},
        {"uniprot/search?query=insulin", "/uniprotkb/search?format=json&query=insulin&size=10"},
        {"uniprot/P01308", "/uniprotkb/P01308?format=json"},
        {"pdb/search?query=kinase&rows=2", "/search/pdb/select?q=kinase&rows=2&wt=json"},
        {"pdb/4hhb", "/api/pdb/entry/summary/4hhb"},
        {"pubchem/aspirin", "/compound/name/aspirin/JSON"},
        {"pubchem/aspirin/properties?properties=XLogP",
         "/compound/name/aspirin/property/XLogP/JSON"},
        {"materials/search?formula=Si", "/materials/summary/?_limit=10&formula=Si"},
        {"materials/mp-149", "/materials/summary/?material_ids=mp-149"},
        {"cern/datasets?query=higgs", "/api/records/?q=higgs&size=10&type=Dataset"},
        {"cern/records/5500", "/api/records/5500"},
        {"gwosc/events", "/eventapi/json/GWTC/"},
        {"gwosc/events/GW150914", "/eventapi/json/event/GW150914/"},
    };
    for (const auto& [route, upstream_path] : cases) {
        const HttpResponse answer = call("GET", "/api/v1/science/" + route);
        ASSERT_EQ(answer.status, 200) << route << ": " << answer.body;
        EXPECT_EQ(lastPath(), upstream_path) << route;
    }
    EXPECT_EQ(call("GET", "/api/v1/science/nasa/apod?date=yesterday").outcome(),
              "400 Invalid date: yesterday");
    EXPECT_EQ(call("GET", "/api/v1/science/nasa/mars-rover?sol=many").outcome(),
              "400 Invalid sol: many");
    EXPECT_EQ(call("GET", "/api/v1/science/noaa/weather?lat=1").outcome(),
              "400 Missing 'lat' or 'lon'");
}

TEST_F(ScienceRoutes, ProvidersAddedOverTheApiAreKeptInTheCustomFile) {
    const std::string record = json{{"id", "lab"}, {"base_url", upstream_.url()}}.dump();
    const HttpResponse added = call("POST", "/api/v1/science/providers", record);
    EXPECT_EQ(added.status, 201) << added.body;
    EXPECT_EQ(call("POST", "/api/v1/science/providers", record).outcome(),
              "409 Provider already exists: lab");
    EXPECT_EQ(
        call("POST", "/api/v1/science/providers", R"({"id":"x","base_url":"ftp://h"})").outcome(),
        "400 Invalid base URL for provider x");
    const HttpResponse tested = call("POST", "/api/v1/science/providers/lab/test");
    EXPECT_EQ(tested.status, 200) << tested.body;
    EXPECT_EQ(tested.json()["success"], true);
    EXPECT_EQ(call("DELETE", "/api/v1/science/providers/lab").json(),
              (json{{"status", "deleted"}}));
    EXPECT_EQ(call("DELETE", "/api/v1/science/providers/uniprot").outcome(),
              "403 Built-in provider cannot be removed: uniprot");
    EXPECT_EQ(call("GET", "/api/v1/science/providers/lab").status, 404);
}

TEST_F(ScienceRoutes, UnknownPathsAndMethodsGetTheAreaAnswers) {
    EXPECT_EQ(call("GET", "/api/v1/science").outcome(), "404 Scientific endpoint not found");
    EXPECT_EQ(call("GET", "/api/v1/science/teleport").outcome(),
              "404 Scientific endpoint not found");
    EXPECT_EQ(call("DELETE", "/api/v1/science/connectors").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("GET", "/api/v1/science/query").outcome(), "405 Method not allowed");

    InProcessDaemon off([](data::DataDaemonConfig& config) { config.science_enabled = false; });
    EXPECT_EQ(off.call("GET", "/api/v1/science/connectors").outcome(),
              "503 Scientific data connector not initialized");
}

}  // namespace
}  // namespace vostra::test
