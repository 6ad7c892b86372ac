#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace qxpctl {

enum class Level { kOk, kWarn, kFail };

/// One thing that was looked at.
struct Finding {
    Level level = Level::kOk;
    std::string check;   // a stable name, for programs
    std::string text;    // what was found
    std::string advice;  // what to do about it; empty when all is well
};

/// Gathers what the checks find. A check that finds nothing wrong leaves one finding that says so.
class Findings {
public:
    void Warn(const std::string& check, const std::string& text, const std::string& advice) {
        all_.push_back({Level::kWarn, check, text, advice});
    }
    void Fail(const std::string& check, const std::string& text, const std::string& advice) {
        all_.push_back({Level::kFail, check, text, advice});
    }
    /// Adds an "ok" when there is nothing of this check so far.
    void OkUnlessFound(const std::string& check, const std::string& text);

    const std::vector<Finding>& All() const { return all_; }
    bool Any(Level level) const;

private:
    std::vector<Finding> all_;
};

// The checks. None throws for what it finds; none changes anything.

/// Programs, libraries and directories: there, readable, and to be changed by nobody but their owner.
void CheckFiles(const std::filesystem::path& root, Findings& findings);
/// The directory of trusted Ed25519 keys.
void CheckTrustedKeys(const std::filesystem::path& root, Findings& findings);
/// The agent's configuration, by its own --check-config.
void CheckConfiguration(const std::filesystem::path& root, Findings& findings);
/// Room on the disk, and databases that the agent has set aside.
void CheckData(const std::filesystem::path& root, Findings& findings);
/// The clock against the age of the files, and whether the system says that it is synchronised.
void CheckClock(const std::filesystem::path& root, Findings& findings);
/// The agent's socket and, through it, the agent, its plugin and its store.
void CheckAgent(const std::filesystem::path& root, const std::string& socket, Findings& findings);

}  // namespace qxpctl
