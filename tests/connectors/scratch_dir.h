// A private temporary directory for one test, removed with its contents when
// the object goes away.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace vostra::data::test {

class ScratchDir {
public:
    ScratchDir() {
        path_ = std::filesystem::temp_directory_path() / "vostra-conn-XXXXXX";
        if (mkdtemp(path_.data()) == nullptr) path_ = "/nonexistent";
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace vostra::data::test
