#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fmt/core.h>

#include "base/errno_text.h"
#include "base/error.h"
#include "base/names.h"
#include "ctl/commands/doctor.h"
#include "ctl/terminal/text.h"
#include "policy/key_file.h"

namespace qxpctl {

namespace {

namespace fs = std::filesystem;
using qxpbase::ErrnoText;
using qxpbase::GroupName;
using qxpbase::UserName;

constexpr const char* kFilesCheck = "files";
constexpr const char* kKeysCheck = "trusted-keys";
constexpr const char* kDiskCheck = "disk";
constexpr const char* kDatabaseCheck = "database";
constexpr const char* kClockCheck = "clock";

// Below the first the agent's store takes nothing more; below the second it is time to act.
constexpr uint64_t kNoRoom = uint64_t{16} << 20;
constexpr uint64_t kLittleRoom = uint64_t{512} << 20;
constexpr uint64_t kFewInodes = 100;
// A file from a package of a later day than the clock shows.
constexpr std::chrono::seconds kClockSlack{86400};

struct Wanted {
    const char* path;
    bool directory;
    int access;  // as for access(2)
    const char* advice;
};

constexpr const char* kReinstall = "install it again";
constexpr const char* kMade = "start qxpagent once, which makes it";

constexpr Wanted kWanted[] = {
    {"bin/qxpagent", false, X_OK, kReinstall},
    {"lib/libqxpmaint.so", false, R_OK, kReinstall},
    {"lib/libqxhost.so", false, R_OK, kReinstall},
    {"etc/plugins/qxpmaint/qxpmaint.conf", false, R_OK,
     "make it, with a section [qxpmaint]: without it the plugin does not start"},
    {"data/qxpmaint", true, R_OK | X_OK, kMade},
    {"data/qxpagent", true, X_OK, kMade},
};

// Who can change an entry can have anything run as the agent's user.
void CheckOwnerAndMode(const fs::path& path, uid_t owner, const char* check, Findings& findings) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return;
    }
    const std::string& name = path.native();
    const std::string word = ShellWord(name);
    if ((status.st_mode & S_IWOTH) != 0) {
        findings.Fail(check, name + " can be changed by everybody", "chmod o-w " + word);
    } else if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0) {
        findings.Warn(check, fmt::format("{} can be changed by the group {}", name, GroupName(status.st_gid)),
                      "chmod g-w " + word);
    }
    if (status.st_uid != 0 && status.st_uid != owner) {
        findings.Fail(check, fmt::format("{} belongs to the user {}", name, UserName(status.st_uid)),
                      fmt::format("chown {} {}", UserName(owner), word));
    }
}

void CheckWanted(const fs::path& root, const Wanted& wanted, uid_t owner, Findings& findings) {
    const fs::path path = root / wanted.path;
    const std::string& name = path.native();
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno;
        findings.Fail(kFilesCheck, fmt::format("{}: {}", name, ErrnoText(error)),
                      error == EACCES ? "try again as root" : wanted.advice);
    } else if (S_ISDIR(status.st_mode) != wanted.directory) {
        findings.Fail(kFilesCheck, fmt::format("{} is not a {}", name, wanted.directory ? "directory" : "file"),
                      wanted.advice);
    } else if (access(path.c_str(), wanted.access) != 0) {
        const int error = errno;
        const char* const what = (wanted.access & R_OK) != 0 ? "read" : "used";
        findings.Fail(kFilesCheck, fmt::format("{} cannot be {}: {}", name, what, ErrnoText(error)),
                      geteuid() != 0 && error == EACCES ? "try again as root" : "chmod u+rX " + ShellWord(name));
    }
    CheckOwnerAndMode(path, owner, kFilesCheck, findings);
}

std::vector<fs::path> Entries(const fs::path& directory) {
    std::vector<fs::path> entries;
    std::error_code ignored;
    for (fs::directory_iterator at(directory, ignored), end; !ignored && at != end; at.increment(ignored)) {
        entries.push_back(at->path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

uid_t OwnerOf(const fs::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_uid : 0;
}

void CheckKeyFile(const fs::path& path, Findings& findings) {
    try {
        if (qxppolicy::ReadPublicKey(path.string()).scheme != qxppolicy::Scheme::kEd25519) {
            findings.Warn(kKeysCheck, path.string() + " is an RSA key, which counts only when it is built in",
                          "move it away");
        }
    } catch (const qxpbase::InputError& error) {
        findings.Fail(kKeysCheck, error.what(), "move it away; make keys with 'qxpctl keygen --scheme ed25519'");
    }
}

}  // namespace

void CheckFiles(const fs::path& root, Findings& findings) {
    const uid_t owner = OwnerOf(root);
    if (owner != 0) {
        findings.Warn(kFilesCheck,
                      fmt::format("{} belongs to the user {}, who can have anything run as the agent's user",
                                  root.native(), UserName(owner)),
                      "as it should be in a development tree alone: chown -R root " + ShellWord(root.string()));
    }
    for (const char* const directory : {".", "bin", "lib", "etc", "etc/plugins/qxpmaint", "data"}) {
        CheckOwnerAndMode((root / directory).lexically_normal(), owner, kFilesCheck, findings);
    }
    for (const Wanted& wanted : kWanted) {
        CheckWanted(root, wanted, owner, findings);
    }
    for (const char* const directory : {"data/qxpmaint/policyfile", "data/qxpmaint/policyprocess"}) {
        CheckOwnerAndMode(root / directory, owner, kFilesCheck, findings);
    }
    findings.OkUnlessFound(kFilesCheck, "programs, libraries and directories are in place under " + root.string());
}

void CheckTrustedKeys(const fs::path& root, Findings& findings) {
    const fs::path directory = root / "etc/trusted-keys";
    std::error_code failure;
    if (!fs::is_directory(directory, failure)) {
        findings.Warn(
            kKeysCheck, "there is no directory " + directory.string(),
            "make it for the public keys of those who sign scripts; until then the built-in key alone counts");
        return;
    }
    if (access(directory.c_str(), R_OK | X_OK) != 0) {
        findings.Fail(kKeysCheck, fmt::format("{} cannot be read: {}", directory.native(), ErrnoText(errno)),
                      "try again as root");
        return;
    }
    const uid_t owner = OwnerOf(root);
    CheckOwnerAndMode(directory, owner, kKeysCheck, findings);
    size_t keys = 0;
    for (const fs::path& path : Entries(directory)) {
        if (path.extension() != ".pem" || path.filename().string().starts_with(".")) {
            continue;
        }
        ++keys;
        CheckOwnerAndMode(path, owner, kKeysCheck, findings);
        CheckKeyFile(path, findings);
    }
    findings.OkUnlessFound(kKeysCheck, fmt::format("{} in {}", Count(keys, "key"), directory.native()));
}

void CheckData(const fs::path& root, Findings& findings) {
    const fs::path data = root / "data";
    struct statvfs room {};
    if (statvfs(data.c_str(), &room) != 0) {
        findings.Fail(kDiskCheck, fmt::format("{}: {}", data.native(), ErrnoText(errno)), "see 'files' above");
    } else {
        const uint64_t free = uint64_t{room.f_bavail} * room.f_frsize;
        const std::string text = fmt::format("{} free for {}", SizeText(free), data.native());
        const char* const advice = "make room, or give the agent's store a smaller limit";
        if (free < kNoRoom) {
            findings.Fail(kDiskCheck, text, advice);
        } else if (free < kLittleRoom) {
            findings.Warn(kDiskCheck, text, advice);
        }
        if (room.f_files > 0 && room.f_favail < kFewInodes) {
            findings.Fail(kDiskCheck, fmt::format("{} free for {}", Count(room.f_favail, "inode"), data.native()),
                          "delete files that nobody needs");
        }
        findings.OkUnlessFound(kDiskCheck, text);
    }
    for (const fs::path& path : Entries(data / "qxpagent")) {
        if (path.filename().string().find(".corrupt") != std::string::npos) {
            findings.Warn(
                kDatabaseCheck, path.string() + ": the agent found its database damaged and began a new one",
                "commands and reports of before are in that file alone: keep a copy, check the disk, delete it");
        }
    }
    findings.OkUnlessFound(kDatabaseCheck, "no damaged database was set aside");
}

void CheckClock(const fs::path& root, Findings& findings) {
    struct stat status {};
    const auto now = std::chrono::system_clock::now();
    const fs::path program = root / "bin/qxpagent";
    if (stat(program.c_str(), &status) == 0 &&
        std::chrono::system_clock::from_time_t(status.st_mtime) > now + kClockSlack) {
        findings.Fail(kClockCheck, fmt::format("the clock is behind the time at which {} was made", program.native()),
                      "set it: reports carry its time, and what is kept goes by it");
    }
    timex state{};
    const int result = adjtimex(&state);
    if (result == TIME_ERROR || (result >= 0 && (state.status & STA_UNSYNC) != 0)) {
        findings.Warn(kClockCheck, "the clock is not synchronised",
                      "see 'timedatectl'; reports of several machines cannot be compared by their times");
    }
    findings.OkUnlessFound(kClockCheck, result < 0 ? "plausible" : "synchronised");
}

}  // namespace qxpctl
