#include "science/science_request.h"

namespace vostra::data {

nlohmann::json ScienceResult::toJson() const {
    nlohmann::json answer = {{"success", success},
                             {"data", data},
                             {"error", error},
                             {"status_code", status_code},
                             {"response_time_ms", response_time_ms},
                             {"cached", cached}};
    if (!results.is_null()) answer["results"] = results;
    return answer;
}

}  // namespace vostra::data
