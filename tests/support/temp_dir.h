#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

/// A directory of its own for one test, removed with everything in it. Its path is canonical.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qxp-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            throw std::runtime_error("cannot make a temporary directory");
        }
        path_ = std::filesystem::canonical(pattern);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(path_ / name, std::ios::binary) << content;
        return *this / name;
    }

private:
    std::filesystem::path path_;
};

/// What can be read of a file; nothing when it is not there, or is that of a process which ends meanwhile.
inline std::string ReadFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(content).str();
}
