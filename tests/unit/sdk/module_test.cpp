#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <filesystem>
#include <optional>

#include "qxhost/module.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

std::array<char, 1 << 20> zero_initialised;

std::optional<std::string> ModulePath(const void* address) {
    std::array<char, PATH_MAX> buffer = {};
    return QxGetModuleFilePath(address, buffer.data(), buffer.size() - 1) ? std::optional(buffer.data()) : std::nullopt;
}

TEST(ModuleFilePath, NamesTheDirectoryOfTheProgramForItsCodeAndItsVariables) {
    const std::string expected = fs::canonical("/proc/self/exe").parent_path();
    EXPECT_EQ(ModulePath(reinterpret_cast<const void*>(&ModulePath)), expected);
    EXPECT_EQ(ModulePath(zero_initialised.data() + zero_initialised.size() - 1), expected);
}

TEST(ModuleFilePath, RefusesUnknownAddressesAndPathsOverTheLimit) {
    const int on_the_stack = 0;
    EXPECT_EQ(ModulePath(&on_the_stack), std::nullopt);
    EXPECT_EQ(ModulePath(std::make_unique<int>().get()), std::nullopt);
    EXPECT_EQ(ModulePath(nullptr), std::nullopt);
    const auto* address = reinterpret_cast<const void*>(&ModulePath);
    const auto length = static_cast<unsigned int>(ModulePath(address)->size());
    std::string buffer(length + 1, '?');
    EXPECT_FALSE(QxGetModuleFilePath(address, buffer.data(), length - 1));
    EXPECT_EQ(buffer, std::string(length + 1, '?'));
    EXPECT_TRUE(QxGetModuleFilePath(address, buffer.data(), length));
    EXPECT_EQ(buffer.c_str(), *ModulePath(address));
    EXPECT_FALSE(QxGetModuleFilePath(address, nullptr, length));
}

/// The path of a library that was opened by a relative name, as the working directory and then the file went away.
int CheckMovingLibrary(const fs::path& directory) {
    fs::current_path(directory);
    void* library = dlopen("./copy.so", RTLD_NOW | RTLD_LOCAL);
    fs::current_path("/");
    const void* address = library == nullptr ? nullptr : dlsym(library, "QxGetTickCount");
    const bool while_there = ModulePath(address) == directory.string();
    fs::remove(directory / "copy.so");
    return while_there && ModulePath(address) == directory.string() ? 0 : 1;
}

TEST(ModuleFilePath, DependsNeitherOnTheWorkingDirectoryNorOnTheFile) {
    const TempDir temporary;
    const fs::path directory = temporary.Path() / "with space\nand line (deleted)";
    fs::create_directory(directory);
    Dl_info info = {};
    ASSERT_NE(dladdr(reinterpret_cast<const void*>(&QxGetModuleFilePath), &info), 0);
    fs::copy_file(*ModulePath(info.dli_fbase) + "/libqxhost.so", directory / "copy.so");
    // The working directory belongs to the process.
    EXPECT_EXIT(_exit(CheckMovingLibrary(directory)), testing::ExitedWithCode(0), "");
}

}  // namespace
