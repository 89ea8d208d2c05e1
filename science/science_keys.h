// The gateway's API keys: the key file the operator (or the key route)
// fills, with the environment behind it. Keys saved here are seen by the
// next request at once; the environment is only read, never changed, since
// setenv beside other threads' getenv is undefined behaviour.
//
// Values never leave this class except towards the provider they belong
// to: names() and has() are what may be shown.
//
// Thread-safe: every method may be called from any thread.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/status.h"

namespace vostra::data {

// "science_api_keys.json" in $HOME/.config/vostra, or in /etc/vostra when
// HOME is not set.
std::string defaultScienceKeysFile();

class ScienceKeys {
public:
    // Looks a variable up; the process environment unless a test says otherwise.
    using Environment = std::function<std::optional<std::string>(const std::string&)>;
    static std::optional<std::string> processEnvironment(const std::string& name);

    ScienceKeys(std::string file, Environment environment = processEnvironment);
    ScienceKeys(const ScienceKeys&) = delete;
    ScienceKeys& operator=(const ScienceKeys&) = delete;

    const std::string& file() const { return file_; }

    // Replaces the keys in memory with the file's. A missing file is no
    // keys and no failure; one that is not an object of strings fails
    // (Invalid) and changes nothing.
    Status load();

    // Sets (or, for an empty value, removes) each key and writes the file
    // (mode 0600, its folder made 0700 when missing). When the file cannot
    // be written nothing changes in memory either.
    Status save(const std::map<std::string, std::string>& changes);

    // The value from the key file, else from the environment variable of
    // that name; nothing when neither has a non-empty one.
    std::optional<std::string> lookup(const std::string& name) const;
    // The value from the key file alone.
    std::optional<std::string> stored(const std::string& name) const;
    // Where lookup() finds it: "file", "environment" or "" for nowhere.
    std::string source(const std::string& name) const;
    // Names held in the key file, in order.
    std::vector<std::string> names() const;

private:
    const std::string file_;
    const Environment environment_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> keys_;
};

}  // namespace vostra::data
