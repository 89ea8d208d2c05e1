// The built-in provider table and the records' JSON forms: the exact ids
// in their order, which providers need which key, and records that a
// partial custom entry changes only where it speaks.
#include <gtest/gtest.h>

#include <set>

#include "science/builtin_providers.h"
#include "science/science_provider.h"
#include "science/science_url.h"

namespace vostra::data {
namespace {

using nlohmann::json;

TEST(BuiltinProviders, HoldExactlyTheKnownIdsInTableOrder) {
    // clang-format off
    const std::vector<std::string> expected = {
        "nasa", "esa", "jaxa", "spacex", "iss", "lasp", "mast", "exoplanet", "vizier", "simbad",
        "ned", "sdss", "cern", "hepdata", "gwosc", "usgs", "noaa", "iris", "gbif", "obis", "openaq",
        "inaturalist", "ebird", "copernicus", "ncbi", "uniprot", "pdb", "ensembl", "ena", "mygene",
        "chembl", "interpro", "reactome", "kegg", "string", "intact", "quickgo", "biogrid",
        "myvariant", "omim", "allen", "clinicaltrials", "openfda", "europepmc", "gwas", "disgenet",
        "pharmgkb", "drugbank", "pubchem", "materials", "chemspider", "nist", "cod", "nomad",
        "iaea", "arxiv", "semanticscholar", "openalex", "crossref", "datacite", "orcid", "usda_fdc",
        "dsld", "ods", "openfoodfacts", "usda_ers", "efsa", "foodb", "frida", "faostat", "agris",
        "agricola", "agrold", "amis", "agrovoc", "agrirxiv", "powo", "ipni", "kew", "tair", "wfo",
        "tropicos", "bhl", "plantsdb", "napralert", "imppat", "tcmsp", "naedb", "mpns", "igem",
        "synbiohub", "bioparts", "addgene", "ice", "alphafold", "pride", "arrayexpress",
        "metabolights", "biomodels", "expressionatlas", "worldbank", "imf", "oecd", "fred",
        "eurostat", "bis", "undata", "ecb", "dblp", "acm", "ieee", "pwc", "core", "icpsr", "cessda",
        "socarxiv", "datagov", "arda", "ukdata", "inspirehep", "pdg", "cds", "ads", "scoap3",
        "fermilab", "nist_asd", "exfor", "endf", "nndc", "nist_xray", "kaeri", "tendl",
        "usgs_water", "usgs_waterapi", "nhd", "grdc", "aquastat", "gems", "geotechdata",
        "casegeodb", "asce", "hazus", "eurocode", "geofabrik", "optica", "opticaopen", "spie",
        "refractiveindex", "rpphotonics", "photonicsdb", "zbmath", "oeis", "dlmf", "mathworld",
        "nlab", "lmfdb", "quandl", "ssrn", "alphavantage", "yahoofinance", "openbb", "finra", "itu",
        "3gpp", "ietf", "ieee802", "fcc", "etsi", "ros", "rosdistro", "gazebo", "openrobotics",
        "ifac", "moveit", "thingspeak", "adafruitio", "openweathermap", "sensorweb", "wunderground",
        "opensensors", "cantera", "coolprop", "rmg", "ddbst", "prode", "chemsafe", "iec", "openems",
        "pier", "huggingface", "mlcommons", "kaggle", "openml", "wandb", "tensorflow", "rosindex",
        "ieeeras", "robotshop", "robotsdb", "robodk"};
    // clang-format on
    std::vector<std::string> ids;
    for (const ScienceProvider& provider : builtinProviders())
        ids.push_back(provider.id);
    EXPECT_EQ(ids, expected);
}

TEST(BuiltinProviders, KeyedProvidersNameTheirVariableAndPlacement) {
    // clang-format off
    const std::map<std::string, std::string> expected = {
        {"nasa", "NASA_API_KEY"}, {"openaq", "OPENAQ_API_KEY"}, {"ebird", "EBIRD_API_KEY"},
        {"copernicus", "CDS_API_KEY"}, {"ncbi", "NCBI_API_KEY"}, {"biogrid", "BIOGRID_API_KEY"},
        {"omim", "OMIM_API_KEY"}, {"openfda", "OPENFDA_API_KEY"}, {"disgenet", "DISGENET_API_KEY"},
        {"drugbank", "DRUGBANK_API_KEY"}, {"materials", "MP_API_KEY"}, {"chemspider",
        "CHEMSPIDER_API_KEY"}, {"semanticscholar", "S2_API_KEY"}, {"usda_fdc", "USDA_API_KEY"},
        {"tropicos", "TROPICOS_API_KEY"}, {"bhl", "BHL_API_KEY"}, {"napralert",
        "NAPRALERT_API_KEY"}, {"fred", "FRED_API_KEY"}, {"ieee", "IEEE_API_KEY"}, {"core",
        "CORE_API_KEY"}, {"ads", "ADS_API_KEY"}, {"quandl", "QUANDL_API_KEY"}, {"alphavantage",
        "ALPHAVANTAGE_API_KEY"}, {"thingspeak", "THINGSPEAK_API_KEY"}, {"adafruitio",
        "ADAFRUIT_IO_KEY"}, {"openweathermap", "OPENWEATHER_API_KEY"}, {"wunderground",
        "WU_API_KEY"}, {"opensensors", "OPENSENSORS_API_KEY"}, {"kaggle", "KAGGLE_KEY"}, {"openml",
        "OPENML_API_KEY"}, {"wandb", "WANDB_API_KEY"}};
    // clang-format on
    std::map<std::string, std::string> keyed;
    std::set<std::string> ids;
    for (const ScienceProvider& p : builtinProviders()) {
        EXPECT_TRUE(ids.insert(p.id).second) << "twice: " << p.id;
        EXPECT_TRUE(p.base_url.starts_with("https://")) << p.id;
        EXPECT_FALSE(p.name.empty() || p.description.empty()) << p.id;
        EXPECT_GT(p.rate_limit_rpm, 0) << p.id;
        EXPECT_TRUE(p.category != ScienceCategory::General || p.id == "datagov") << p.id;
        if (!p.auth.needsKey()) {
            EXPECT_EQ(p.auth.env_var, "") << p.id;
            continue;
        }
        keyed[p.id] = p.auth.env_var;
        // The key goes to exactly one place.
        const bool in_query = !p.auth.param_name.empty();
        EXPECT_TRUE(p.auth.type == AuthType::Bearer || in_query != !p.auth.header_name.empty())
            << p.id;
    }
    EXPECT_EQ(keyed, expected);

    auto providers = builtinProviders();
    auto find = [&](const std::string& id) {
        return *std::ranges::find(providers, id, &ScienceProvider::id);
    };
    EXPECT_EQ(find("semanticscholar").auth.type, AuthType::Bearer);
    EXPECT_EQ(find("disgenet").auth.type, AuthType::Bearer);
    EXPECT_EQ(find("ebird").auth.header_name, "x-ebirdapitoken");
    EXPECT_EQ(find("nasa").auth.param_name, "api_key");
}

TEST(BuiltinProviders, ServicesWithConvenienceCallsHaveTemplates) {
    std::map<std::string, std::set<std::string>> names;
    for (const auto& [id, query] : builtinQueries()) {
        EXPECT_TRUE(names[id].insert(query.name).second) << id << " " << query.name;
        EXPECT_TRUE(query.endpoint.starts_with("/")) << id << " " << query.name;
    }
    for (const char* id : {"usgs", "ncbi", "uniprot", "pdb", "materials", "cern", "gwosc"}) {
        EXPECT_TRUE(names[id].contains("search")) << id;
    }
    for (const char* id :
         {"nasa", "noaa", "uniprot", "pdb", "pubchem", "materials", "cern", "gwosc"})
        EXPECT_TRUE(names[id].contains("lookup")) << id;
    EXPECT_TRUE(names["ncbi"].contains("details"));
    EXPECT_TRUE(names["ncbi"].contains("fetch"));
    std::set<std::string> known;
    for (const ScienceProvider& provider : builtinProviders())
        known.insert(provider.id);
    for (const auto& [id, ignored] : names)
        EXPECT_TRUE(known.contains(id)) << id;
}

TEST(ProviderJson, RoundTripsAndPartialRecordsChangeOnlyWhatTheyName) {
    ScienceProvider provider;
    provider.id = "lab";
    provider.name = "Lab";
    provider.description = "A lab service";
    provider.base_url = "https://lab.example";
    provider.category = ScienceCategory::MachineLearning;
    provider.enabled = false;
    provider.rate_limit_rpm = 7;
    provider.auth = {AuthType::Bearer, "", "", "LAB_KEY"};
    QueryTemplate query;
    query.name = "search";
    query.endpoint = "/find";
    query.method = "POST";
    query.params = {{"q", "{query}"}};
    query.body_template = R"({"q":"{query}"})";
    query.headers = {{"X-Trace", "1"}};
    query.response = {"items", "t", "d", "u", "i"};
    query.max_results = 3;
    provider.queries = {query};

    const json form = providerToJson(provider);
    EXPECT_EQ(form["category"], "machine_learning");
    EXPECT_EQ(form["auth"]["type"], "bearer");
    EXPECT_EQ(form["queries"][0]["response"]["results_path"], "items");
    EXPECT_EQ(providerToJson(providerFromJson(form)), form);

    const ScienceProvider moved = providerFromJson({{"base_url", "http://mirror.local"}}, provider);
    EXPECT_EQ(moved.base_url, "http://mirror.local");
    EXPECT_EQ(moved.auth.env_var, "LAB_KEY");
    EXPECT_EQ(moved.queries.size(), 1u);
    EXPECT_FALSE(moved.enabled);

    EXPECT_EQ(providerFromJson({{"category", "alchemy"}}).category, ScienceCategory::General);
    EXPECT_EQ(providerFromJson({{"auth", {{"type", "magic"}}}}).auth.type, AuthType::None);
    EXPECT_THROW(providerFromJson({{"rate_limit_rpm", "fast"}}), json::type_error);
}

TEST(ScienceUrl, EscapesValuesAndJoinsExactlyOneSlash) {
    EXPECT_EQ(escapeUrlComponent("a b&c=d/é~._-"), "a%20b%26c%3Dd%2F%C3%A9~._-");
    EXPECT_EQ(buildUrl("https://h/api", "/x", {}), "https://h/api/x");
    EXPECT_EQ(buildUrl("https://h/api/", "/x", {}), "https://h/api/x");
    EXPECT_EQ(buildUrl("https://h/api", "x", {}), "https://h/api/x");
    EXPECT_EQ(buildUrl("https://h", "", {{"b", "2"}, {"a", "1 1"}}), "https://h?a=1%201&b=2");
    EXPECT_EQ(buildUrl("https://h", "/x?fixed=1", {{"a", "1"}}), "https://h/x?fixed=1&a=1");
    EXPECT_EQ(appendQueryParameter("https://h/x", "api_key", "k&k"), "https://h/x?api_key=k%26k");
}

TEST(ScienceUrl, MasksKeysInQueryStringsAndAnywhereElse) {
    EXPECT_EQ(maskSecrets("HTTP 403 for https://h/?api_key=s3cret&q=1", {"api_key"}, {}),
              "HTTP 403 for https://h/?api_key=***&q=1");
    EXPECT_EQ(maskSecrets("https://h/?q=1&api_key=s3cret", {"api_key"}, {}),
              "https://h/?q=1&api_key=***");
    // A name inside another parameter's name or value is not a parameter.
    EXPECT_EQ(maskSecrets("https://h/?my_api_key=1&q=api_key=2", {"api_key"}, {}),
              "https://h/?my_api_key=1&q=api_key=2");
    EXPECT_EQ(maskSecrets("refused key s3cret (s3cret)", {}, {"s3cret", ""}),
              "refused key *** (***)");
}

}  // namespace
}  // namespace vostra::data
