// The services the gateway knows out of the box, and the named query
// templates of the best-known ones. Pure data, built afresh on each call;
// thread-safe.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "science/science_provider.h"

namespace vostra::data {

// Every built-in provider, in table order, without query templates.
std::vector<ScienceProvider> builtinProviders();

// The built-in templates as (provider id, template) pairs.
std::vector<std::pair<std::string, QueryTemplate>> builtinQueries();

}  // namespace vostra::data
