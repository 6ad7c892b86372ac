#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "qxhost/file.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr uintmax_t kMaxFileSize = 128UL * 1024 * 1024;

using FileData = std::unique_ptr<char, decltype(&QxReleaseFileData)>;

FileData Read(const fs::path& path) {
    return {QxReadFileData(path.c_str()), QxReleaseFileData};
}

TEST(ReadFileData, GivesTheBytesOfARegularFileAndANul) {
    const TempDir directory;
    const std::string content = "{\"a\"\0:1}\n"s;
    const std::string file = directory.Write("policy.json", content);
    fs::create_symlink("policy.json", directory.Path() / "link");
    for (const std::string& path : {file, directory / "link"}) {
        const FileData data = Read(path);
        ASSERT_TRUE(data) << path;
        EXPECT_EQ(std::string(data.get(), content.size() + 1), content + '\0');
    }
}

TEST(ReadFileData, RefusesWhatIsNotAReadableRegularFileOfItsSize) {
    const TempDir directory;
    directory.Write("empty", "");
    const std::string large = directory.Write("large", "x");
    fs::resize_file(large, kMaxFileSize + 1);
    ASSERT_EQ(mkfifo((directory.Path() / "fifo").c_str(), 0600), 0);
    fs::create_symlink("nowhere", directory.Path() / "dangling");
    const long descriptors = CountEntries("/proc/self/fd");
    for (const char* name : {"missing", "empty", "large", "fifo", "dangling", "."}) {
        EXPECT_FALSE(Read(directory.Path() / name)) << name;
    }
    EXPECT_FALSE(Read("/dev/zero"));
    EXPECT_EQ(QxReadFileData(nullptr), nullptr);
    fs::resize_file(large, kMaxFileSize);
    EXPECT_TRUE(Read(large));
    EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
}

TEST(ReadFileData, GivesWhatIsThereWhenTheFileIsShorterThanItsSizeSaid) {
    const char* const shorter = "/sys/kernel/mm/transparent_hugepage/enabled";  // says one page, holds one line
    if (!fs::exists(shorter)) {
        GTEST_SKIP() << "no " << shorter;
    }
    const FileData data = Read(shorter);
    ASSERT_TRUE(data);
    EXPECT_EQ(std::string(data.get()), ReadFile(shorter));
}

TEST(GetFileAttr, GivesSizeAndModificationTimeOrLeavesTheOutputs) {
    const TempDir directory;
    const std::string file = directory.Write("file", "12345");
    const timespec times[2] = {{1, 0}, {1'234'567'890, 999'999'999}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    unsigned long long size = 77;
    unsigned long long time = 88;
    EXPECT_FALSE(QxGetFileAttr((file + "x").c_str(), &size, &time));
    EXPECT_FALSE(QxGetFileAttr(nullptr, &size, &time));
    EXPECT_EQ(size, 77U);
    EXPECT_EQ(time, 88U);
    EXPECT_TRUE(QxGetFileAttr(file.c_str(), nullptr, nullptr));
    EXPECT_TRUE(QxGetFileAttr(file.c_str(), &size, &time));
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(time, 1'234'567'890U);
}

}  // namespace
