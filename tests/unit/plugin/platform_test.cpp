// The operating-system services: what each does to real files, processes and signal masks.

#include "plugin/platform/main_t_tool.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): POSIX
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "tests/support/temp_dir.h"
#include "tests/unit/plugin/descriptor_limit.h"

namespace {

mode_t Mode(const std::string& path) {
    struct stat attributes {};
    return stat(path.c_str(), &attributes) == 0 ? attributes.st_mode & 07777 : 0;
}

TEST(ToolProcess, FailureTellsErrnoAndAnEmptyCommandTouchesNothing) {
    int marker = 0;
    _CreateProcessInfo process;
    process.hProcess = &marker;
    unsigned int error = 77;
    EXPECT_FALSE(CMainTTool::CreateProcessLinux("", process, &error));
    EXPECT_FALSE(CMainTTool::CreateProcessLinux(nullptr, process, &error));
    EXPECT_EQ(process.hProcess, &marker);
    EXPECT_EQ(error, 77U);

    {
        const DescriptorLimit none(0);
        EXPECT_FALSE(CMainTTool::CreateProcessLinux("true", process, &error));
    }
    EXPECT_EQ(process.hProcess, nullptr);
    EXPECT_EQ(error, static_cast<unsigned int>(EMFILE));
    CMainTTool::CleanHandle(nullptr);
}

TEST(ToolFile, WhatIsSavedIsReadBackAndFailuresAreTold) {
    const TempDir directory;
    const std::string path = directory / "file";
    std::string content = "old";
    EXPECT_FALSE(CMainTTool::ReadFileDataA(path, content));
    EXPECT_EQ(content, "old");
    for (const char* text : {"a longer text", "short", ""}) {
        EXPECT_TRUE(CMainTTool::SaveFileDataA(path, text));
        EXPECT_EQ(CMainTTool::ReadFileDataA(path, content), *text != '\0');
        EXPECT_EQ(content, text) << "an empty file leaves nothing of an earlier content";
    }
    content = "old";
    EXPECT_FALSE(CMainTTool::ReadFileDataA(directory.Path().string(), content));
    EXPECT_EQ(content, "") << "opened, and then found to be a directory";
    EXPECT_FALSE(CMainTTool::SaveFileDataA(path, nullptr));
    EXPECT_FALSE(CMainTTool::SaveFileDataA("", "text"));
    EXPECT_FALSE(CMainTTool::SaveFileDataA("/dev/full", "text")) << "the text is lost when the stream is flushed";
    unsigned long long size = 1;
    unsigned long long time = 0;
    EXPECT_TRUE(CMainTTool::GetFileSizeTime(path.c_str(), size, time));
    EXPECT_EQ(size, 0U);
    EXPECT_TRUE(CMainTTool::MaintDeleteFile(path.c_str()));
    EXPECT_FALSE(CMainTTool::MaintDeleteFile(path.c_str()));
}

TEST(ToolDirectory, ParentsAreCreatedWithTheirModeWhateverTheUmask) {
    const TempDir directory;
    for (const mode_t mask : {0077U, 0477U}) {
        const std::string root = std::to_string(mask) + "/";
        const mode_t before = umask(mask);
        EXPECT_TRUE(CMainTTool::RecursiveCreateDir((directory / root + "a/b").c_str()));
        EXPECT_FALSE(CMainTTool::RecursiveCreateDir((directory / root + "d/").c_str())) << "created, and then met";
        EXPECT_EQ(umask(before), mask);
        for (const char* created : {"", "a", "a/b", "d"}) {
            EXPECT_EQ(Mode(directory / root + created), 0755U) << root << created;
        }
    }

    directory.Write("file", "");
    EXPECT_FALSE(CMainTTool::RecursiveCreateDir((directory / "file/below").c_str()));
    EXPECT_FALSE(CMainTTool::RecursiveCreateDir("no-such-directory-here"));
    EXPECT_FALSE(CMainTTool::RecursiveCreateDir(""));
    // What a sender may name as a script's directory: deep enough to exhaust a stack that recurses on it.
    std::string deep = directory.Path().string();
    for (int i = 0; i < 1000000; ++i) {
        deep += "/x";
    }
    EXPECT_FALSE(CMainTTool::RecursiveCreateDir(deep.c_str()));
}

TEST(ToolTime, APauseIsNotCutShortBySignals) {
    constexpr std::chrono::milliseconds TIME{50};
    static std::atomic<int> signals;
    struct sigaction before {};
    struct sigaction counting {};
    counting.sa_handler = [](int) { ++signals; };
    sigaction(SIGALRM, &counting, &before);
    const itimerval often{{0, 2000}, {0, 2000}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto start = std::chrono::steady_clock::now();
    MaintPause(TIME);
    const auto paused = std::chrono::steady_clock::now() - start;
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(paused, TIME);
    EXPECT_GT(signals.load(), 0);
}

TEST(ToolTime, DifferenceSurvivesAWrapAt32Bits) {
    EXPECT_EQ(CMainTTool::GetDiffCount(4294967290UL, 5), 11U);
    EXPECT_EQ(CMainTTool::GetDiffCount(5, 5), 0U);
    EXPECT_EQ(CMainTTool::GetDiffCount(5, 12), 7U);
}

TEST(ToolEvent, FlagsReachTheHostAndNullIsNoEvent) {
    for (const bool manual : {false, true}) {
        void* event = CMainTTool::MaintCreateEvent(nullptr, manual ? 2 : 0, manual ? 0 : 2, nullptr);
        EXPECT_EQ(CMainTTool::MaintWaitEvent(event, 0) == 0, !manual) << "set from the first";
        EXPECT_TRUE(CMainTTool::MaintSetEvent(event));
        EXPECT_EQ(CMainTTool::MaintWaitEvent(event, 0), 0U);
        EXPECT_EQ(CMainTTool::MaintWaitEvent(event, 0) == 0, manual);
        CMainTTool::MaintDestroyEvent(event);
    }
    EXPECT_FALSE(CMainTTool::MaintSetEvent(nullptr));
    EXPECT_EQ(CMainTTool::MaintWaitEvent(nullptr, -1), 0xFFFFFFFFU);
    CMainTTool::MaintDestroyEvent(nullptr);
    CMainTTool::MaintLock(nullptr);
    CMainTTool::MaintUnLock(nullptr);
}

TEST(ToolBase64, BytesKeepTheirZerosAndTextEndsThere) {
    int length = 0;
    unsigned char* bytes = CMainTTool::DecodeBase64("YQBi", length);
    ASSERT_EQ(length, 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 3), std::string("a\0b", 3));
    free(bytes);
    CPString text = "old";
    EXPECT_FALSE(CMainTTool::DecodeBase64("*", text));
    EXPECT_EQ(text, "old");
    EXPECT_TRUE(CMainTTool::DecodeBase64("YQBi", text));
    EXPECT_EQ(text, "a");
}

}  // namespace
