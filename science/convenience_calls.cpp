// The convenience calls of ScientificConnector: fixed endpoints of the
// best-known services, each one execute() of a path built here, so keys,
// budgets and the cache apply to them as to any other call.
#include <array>
#include <charconv>
#include <chrono>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "science/science_url.h"
#include "science/scientific_connector.h"

namespace vostra::data {
namespace {

constexpr const char* kDateFormat = "%Y-%m-%d";
constexpr const char* kTimeFormat = "%Y-%m-%dT%H:%M:%S";

std::string formatUtc(std::time_t when, const char* format) {
    std::tm parts{};
    gmtime_r(&when, &parts);
    std::array<char, 32> text{};
    return std::string(text.data(), std::strftime(text.data(), text.size(), format, &parts));
}

std::time_t now() {
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

// Whether `text` is a real moment written in `format`: "2024-02-30" reads,
// but does not come back the same, so it is refused.
bool isMoment(const std::string& text, const char* format) {
    std::tm parts{};
    std::istringstream in(text);
    in >> std::get_time(&parts, format);
    if (in.fail() || in.peek() != std::char_traits<char>::eof()) return false;
    return formatUtc(timegm(&parts), format) == text;
}

// Fills an empty moment with `fallback`; a malformed one fails.
std::optional<ScienceResult> checkMoment(std::string& text, const char* format,
                                         std::time_t fallback, const char* what) {
    if (text.empty()) {
        text = formatUtc(fallback, format);
        return std::nullopt;
    }
    if (isMoment(text, format)) return std::nullopt;
    return ScienceResult::failure(ErrorKind::Invalid, std::string("Invalid ") + what + ": " + text);
}

std::optional<ScienceResult> required(const std::string& value, const char* what) {
    if (!value.empty()) return std::nullopt;
    return ScienceResult::failure(ErrorKind::Invalid, std::string("Missing ") + what);
}

// The shortest text that reads back as `value`.
std::string number(double value) {
    std::array<char, 32> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() ? std::string(text.data(), end) : std::string("0");
}

std::string segment(const std::string& value) {
    return escapeUrlComponent(value);
}

// Property lists keep their commas: the service splits on them.
std::string commaList(const std::string& value) {
    std::string escaped = escapeUrlComponent(value);
    for (std::size_t at = escaped.find("%2C"); at != std::string::npos;
         at = escaped.find("%2C", at + 1))
        escaped.replace(at, 3, ",");
    return escaped;
}

}  // namespace

ScienceResult ScientificConnector::call(const std::string& id, const std::string& endpoint,
                                        std::map<std::string, std::string> params) {
    ScienceRequest request;
    request.provider = id;
    request.endpoint = endpoint;
    request.params = std::move(params);
    return execute(request);
}

ScienceResult ScientificConnector::nasaApod(const std::string& date) {
    std::string day = date;
    if (auto bad = checkMoment(day, kDateFormat, now(), "date")) return *bad;
    return call("nasa", "/planetary/apod", {{"date", day}});
}

ScienceResult ScientificConnector::nasaNeo(const std::string& start_date,
                                           const std::string& end_date) {
    std::string start = start_date, end = end_date;
    if (auto bad = checkMoment(start, kDateFormat, now(), "start date")) return *bad;
    if (auto bad = checkMoment(end, kDateFormat, now(), "end date")) return *bad;
    return call("nasa", "/neo/rest/v1/feed", {{"start_date", start}, {"end_date", end}});
}

ScienceResult ScientificConnector::nasaMarsRover(const std::string& rover, int sol,
                                                 const std::string& camera) {
    if (auto bad = required(rover, "rover")) return *bad;
    std::map<std::string, std::string> params = {{"sol", std::to_string(sol)}};
    if (!camera.empty()) params["camera"] = camera;
    return call("nasa", "/mars-photos/api/v1/rovers/" + segment(rover) + "/photos", params);
}

ScienceResult ScientificConnector::usgsEarthquakes(const std::string& start_time,
                                                   const std::string& end_time,
                                                   double min_magnitude, int limit) {
    std::string start = start_time, end = end_time;
    const std::time_t until = now();
    if (auto bad = checkMoment(start, kTimeFormat, until - 24 * 60 * 60, "start time")) return *bad;
    if (auto bad = checkMoment(end, kTimeFormat, until, "end time")) return *bad;
    return call("usgs", "/fdsnws/event/1/query",
                {{"format", "geojson"},
                 {"starttime", start},
                 {"endtime", end},
                 {"minmagnitude", number(min_magnitude)},
                 {"limit", std::to_string(limit)}});
}

ScienceResult ScientificConnector::noaaWeather(double latitude, double longitude) {
    if (latitude < -90 || latitude > 90 || longitude < -180 || longitude > 180)
        return ScienceResult::failure(
            ErrorKind::Invalid,
            "Invalid coordinates: " + number(latitude) + "," + number(longitude));
    return call("noaa", "/points/" + number(latitude) + "," + number(longitude), {});
}

ScienceResult ScientificConnector::ncbiSearch(const std::string& database, const std::string& term,
                                              int max_results) {
    if (auto bad = required(term, "search term")) return *bad;
    return call("ncbi", "/esearch.fcgi",
                {{"db", database},
                 {"term", term},
                 {"retmax", std::to_string(max_results)},
                 {"retmode", "json"}});
}

ScienceResult ScientificConnector::ncbiFetch(const std::string& database, const std::string& ids) {
    if (auto bad = required(ids, "id")) return *bad;
    return call("ncbi", "/esummary.fcgi", {{"db", database}, {"id", ids}, {"retmode", "json"}});
}

ScienceResult ScientificConnector::ncbiEfetch(const std::string& database, const std::string& ids,
                                              const std::string& rettype) {
    if (auto bad = required(ids, "id")) return *bad;
    return call("ncbi", "/efetch.fcgi",
                {{"db", database}, {"id", ids}, {"rettype", rettype}, {"retmode", "text"}});
}

ScienceResult ScientificConnector::uniprotSearch(const std::string& query, int size) {
    if (auto bad = required(query, "query")) return *bad;
    return call("uniprot", "/uniprotkb/search",
                {{"query", query}, {"size", std::to_string(size)}, {"format", "json"}});
}

ScienceResult ScientificConnector::uniprotEntry(const std::string& accession) {
    if (auto bad = required(accession, "accession")) return *bad;
    return call("uniprot", "/uniprotkb/" + segment(accession), {{"format", "json"}});
}

ScienceResult ScientificConnector::pdbSearch(const std::string& query, int rows) {
    if (auto bad = required(query, "query")) return *bad;
    return call("pdb", "/search/pdb/select",
                {{"q", query}, {"rows", std::to_string(rows)}, {"wt", "json"}});
}

ScienceResult ScientificConnector::pdbEntry(const std::string& pdb_id) {
    if (auto bad = required(pdb_id, "PDB id")) return *bad;
    return call("pdb", "/api/pdb/entry/summary/" + segment(pdb_id), {});
}

ScienceResult ScientificConnector::pubchemCompound(const std::string& name) {
    if (auto bad = required(name, "compound name")) return *bad;
    return call("pubchem", "/compound/name/" + segment(name) + "/JSON", {});
}

ScienceResult ScientificConnector::pubchemProperties(const std::string& name,
                                                     const std::string& properties) {
    if (auto bad = required(name, "compound name")) return *bad;
    if (auto bad = required(properties, "properties")) return *bad;
    return call("pubchem",
                "/compound/name/" + segment(name) + "/property/" + commaList(properties) + "/JSON",
                {});
}

ScienceResult ScientificConnector::materialsSearch(const std::string& formula, int limit) {
    if (auto bad = required(formula, "formula")) return *bad;
    return call("materials", "/materials/summary/",
                {{"formula", formula}, {"_limit", std::to_string(limit)}});
}

ScienceResult ScientificConnector::materialsEntry(const std::string& material_id) {
    if (auto bad = required(material_id, "material id")) return *bad;
    return call("materials", "/materials/summary/", {{"material_ids", material_id}});
}

ScienceResult ScientificConnector::cernDatasets(const std::string& query, int size) {
    std::map<std::string, std::string> params = {{"type", "Dataset"},
                                                 {"size", std::to_string(size)}};
    if (!query.empty()) params["q"] = query;
    return call("cern", "/api/records/", params);
}

ScienceResult ScientificConnector::cernRecord(const std::string& record_id) {
    if (auto bad = required(record_id, "record id")) return *bad;
    return call("cern", "/api/records/" + segment(record_id), {});
}

ScienceResult ScientificConnector::gwoscEvents(const std::string& catalog) {
    if (auto bad = required(catalog, "catalog")) return *bad;
    return call("gwosc", "/eventapi/json/" + segment(catalog) + "/", {});
}

ScienceResult ScientificConnector::gwoscEvent(const std::string& name) {
    if (auto bad = required(name, "event name")) return *bad;
    return call("gwosc", "/eventapi/json/event/" + segment(name) + "/", {});
}

}  // namespace vostra::data
