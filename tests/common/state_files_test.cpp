// The atomic writer of state files and the rule for ids that become names.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/atomic_file.h"
#include "common/file_name.h"

namespace vostra {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("vostra-atomic-" + std::to_string(getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string read(const fs::path& path) {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::size_t entries() {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_), {}));
    }

    fs::path dir_;
};

TEST_F(AtomicFileTest, ReplacesTheWholeFileWithTheCallersModeAndLeavesNoTemporary) {
    const std::string path = (dir_ / "state.json").string();
    ASSERT_TRUE(writeFileAtomically(path, "old", 0644).ok());
    const mode_t old_mask = umask(0077);  // the caller's mode wins over the umask
    const Status written = writeFileAtomically(path, std::string(100000, 'n'), 0640);
    umask(old_mask);
    ASSERT_TRUE(written.ok()) << written.message;
    EXPECT_EQ(read(path), std::string(100000, 'n'));
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    EXPECT_EQ(entries(), 1u);
}

TEST_F(AtomicFileTest, AFailureLeavesTheOldFileAndSaysWhy) {
    const std::string path = (dir_ / "state.json").string();
    ASSERT_TRUE(writeFileAtomically(path, "old", 0600).ok());
    // A folder where the file should be: the rename fails after the write.
    const std::string blocked = (dir_ / "taken").string();
    fs::create_directories(dir_ / "taken" / "inside");
    const Status over_folder = writeFileAtomically(blocked, "new", 0600);
    EXPECT_EQ(over_folder.kind, ErrorKind::Internal);
    EXPECT_NE(over_folder.message.find("Cannot replace " + blocked), std::string::npos)
        << over_folder.message;
    const Status no_folder = writeFileAtomically((dir_ / "missing" / "f").string(), "x", 0600);
    EXPECT_FALSE(no_folder.ok());
    EXPECT_EQ(read(path), "old");
    EXPECT_EQ(entries(), 2u);  // state.json and taken: no temporary left behind
}

TEST(FileNameRule, RefusesEveryIdThatIsNotOneNameInItsFolder) {
    for (const std::string bad : {"", ".", "..", "../x", "a/b", "/abs", "a..b", "x.."})
        EXPECT_NE(fileNameProblem(bad), "") << bad;
    EXPECT_NE(fileNameProblem(std::string("a\0b", 3)), "");
    for (const std::string good : {"acme", "acme-1.prod", ".hidden", "a_b", "ünï"})
        EXPECT_EQ(fileNameProblem(good), "") << good;
}

}  // namespace
}  // namespace vostra
