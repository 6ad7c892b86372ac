#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/access/access.h"
#include "base/startup_error.h"
#include "http/unix_listener.h"
#include "tests/support/temp_dir.h"

namespace qxpagent {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// What a StartupError says; "none" without one.
template <typename Function>
std::string Refusal(const Function& function) {
    try {
        function();
    } catch (const qxpbase::StartupError& error) {
        return error.what();
    }
    return "none";
}

// The mode and the group of a file.
using Access = std::pair<mode_t, gid_t>;
Access AccessTo(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
    return {status.st_mode & 07777U, status.st_gid};
}

// What the attempt to listen there is refused with.
std::string RefusedListener(const fs::path& path, const std::string& group = "") {
    return Refusal([&] { const qxphttp::UnixListener listener(path, "agent", group); });
}

class AccessTest : public testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"bin", "lib", "etc/trusted-keys", "etc/plugins/qxpmaint", "data/qxpagent",
                                 "data/qxpmaint/policyfile", "data/qxpmaint/policyprocess", "data/qxpmaint/result"}) {
            fs::create_directories(root_ / name);
        }
        for (const char* name : {"bin/qxpagent", "lib/libqxpmaint.so", "etc/trusted-keys/ops.pub.pem",
                                 "etc/plugins/qxpmaint/qxpmaint.conf", "etc/qxpagent.conf", "data/qxpagent/agent.db",
                                 "data/qxpagent/agent.db-wal"}) {
            directory_.Write(name, "x");
        }
        options_.plugin = root_ / "lib/libqxpmaint.so";
        options_.socket = socket_;
        options_.store = store_;
    }

    std::string Check() const {
        return Refusal([this] { CheckAccess(options_, installation_, root_ / "etc/qxpagent.conf"); });
    }

    const TempDir directory_;
    const fs::path root_ = directory_.Path();
    const Installation installation_{root_ / "bin", root_ / "data/qxpagent"};
    const fs::path socket_ = installation_.agent_data / "agent.sock";
    const fs::path store_ = installation_.agent_data / "agent.db";
    Options options_;
};

TEST_F(AccessTest, NothingThatIsTrustedMayBeWritableByOthers) {
    ASSERT_EQ("none", Check());
    for (const char* name :
         {"", "bin", "bin/qxpagent", "lib", "lib/libqxpmaint.so", "etc", "etc/trusted-keys",
          "etc/trusted-keys/ops.pub.pem", "etc/plugins/qxpmaint/qxpmaint.conf", "etc/qxpagent.conf", "data",
          "data/qxpagent", "data/qxpagent/agent.db", "data/qxpagent/agent.db-wal", "data/qxpmaint",
          "data/qxpmaint/policyfile", "data/qxpmaint/policyprocess", "data/qxpmaint/result"}) {
        const std::string path = *name != '\0' ? directory_ / name : root_.string();
        ASSERT_EQ(0, chmod(path.c_str(), AccessTo(path).first | S_IWOTH));
        const std::string refusal = Check();
        EXPECT_THAT(refusal, testing::EndsWith(": chmod o-w " + path)) << name;
        // The command that it names mends it.
        EXPECT_EQ(0, std::system(refusal.substr(refusal.find("chmod ")).c_str()));  // NOLINT(cert-env33-c)
        EXPECT_EQ("none", Check()) << name;
    }
    ASSERT_EQ(0, chmod(root_.c_str(), 0770));
    EXPECT_EQ("none", Check()) << "the agent's own group may write";

    options_.store = root_ / "elsewhere" / "agent.db";
    EXPECT_EQ("none", Check()) << "what is not there yet";
    fs::create_directory(root_ / "elsewhere");
    ASSERT_EQ(0, chmod((root_ / "elsewhere").c_str(), 0777));
    EXPECT_THAT(Check(), HasSubstr("elsewhere"));

    options_.store = store_;
    fs::create_symlink(root_ / "elsewhere", root_ / "etc" / "link");
    EXPECT_THAT(Check(), HasSubstr("etc/link can be changed by others"));
}

TEST_F(AccessTest, AForeignOwnerOrGroupIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give files away";
    }
    const std::string keys = (root_ / "etc/trusted-keys").string();
    ASSERT_EQ(0, chown(keys.c_str(), 4321, 0));
    EXPECT_THAT(Check(), HasSubstr("chown root " + keys));
    ASSERT_EQ(0, chown(keys.c_str(), 0, 4321));
    for (const auto& [mode, refusal] :
         {std::pair<mode_t, std::string>{0775, "chmod g-w " + keys}, {0777, "chmod go-w " + keys}, {0755, "none"}}) {
        ASSERT_EQ(0, chmod(keys.c_str(), mode));
        EXPECT_THAT(Check(), testing::EndsWith(refusal));
    }
}

TEST_F(AccessTest, WhereALinkLeadsNobodyElseCanChangeTheWay) {
    fs::rename(root_ / "etc/trusted-keys", directory_ / "keys");
    fs::create_directories(directory_ / "way");
    fs::create_directory_symlink("../way/on", root_ / "etc/trusted-keys");
    fs::create_directory_symlink("../keys", directory_ / "way/on");
    EXPECT_EQ("none", Check());
    for (const char* part : {"way", "keys", "keys/ops.pub.pem"}) {
        ASSERT_EQ(0, chmod((root_ / part).c_str(), 0777));
        EXPECT_THAT(Check(), testing::EndsWith("chmod o-w " + (root_ / part).string()));
        ASSERT_EQ(0, chmod((root_ / part).c_str(), 0755));
    }
    ASSERT_EQ(0, chmod((root_ / "way").c_str(), 01777));
    EXPECT_EQ("none", Check()) << "nobody can replace the link in it";
    ASSERT_EQ(0, chmod((root_ / "keys").c_str(), 01777));
    EXPECT_THAT(Check(), HasSubstr("chmod o-w")) << "anybody can add a key";
    ASSERT_EQ(0, chmod((root_ / "keys").c_str(), 0755));
    if (geteuid() == 0) {
        ASSERT_EQ(0, lchown((root_ / "way/on").c_str(), 4321, 0));
        EXPECT_THAT(Check(), HasSubstr("chown -h root " + (root_ / "way/on").string()));
    }
}

TEST_F(AccessTest, FilesElsewhereAreExaminedToo) {
    const auto check_log = [this] { return Refusal([this] { CheckLogFile(options_); }); };
    fs::create_directory(root_ / "other");
    options_.init_param = "agent_type=KSTL:conf_path=" + directory_.Write("other/plugin.conf", "");
    options_.log = directory_.Write("other/log", "");
    EXPECT_EQ("none", Check());
    EXPECT_EQ("none", check_log());
    for (const char* name : {"other", "other/plugin.conf", "other/log"}) {
        ASSERT_EQ(0, chmod((root_ / name).c_str(), 0777));
        EXPECT_EQ("none" == Check(), std::string(name) == "other/log") << name;
        EXPECT_EQ("none" == check_log(), std::string(name) == "other/plugin.conf") << name;
        ASSERT_EQ(0, chmod((root_ / name).c_str(), 0755));
    }
    ASSERT_EQ(0, chmod((root_ / "other").c_str(), 01777));
    EXPECT_EQ("none", check_log());
    for (const char* log : {"", "stderr", "journal"}) {
        options_.log = log;
        EXPECT_EQ("none", check_log());
    }
}

TEST_F(AccessTest, ADirectoryForScriptsIsAllowedAndNobodyElseCanChangeTheWayToIt) {
    const std::vector<fs::path> allowed{root_ / "jobs", root_ / "none"};
    const auto why = [&](const std::string& path) {
        return ValidateScriptDirectory(root_ / path, allowed, root_).value_or("");
    };
    fs::create_directories(root_ / "jobs/daily");
    fs::create_directories(root_ / "open");
    fs::create_directory_symlink(root_ / "jobs", root_ / "link");
    fs::create_directory_symlink("../open/hop", root_ / "jobs/out");
    fs::create_directory_symlink("round", root_ / "jobs/round");
    for (const char* path : {"jobs", "jobs/", "jobs/daily", "jobs//new/deep", "link/daily", "jobs/daily/../x"}) {
        EXPECT_EQ("", why(path)) << path;
    }
    for (const char* path : {"", "jobsite", "open", "jobs/..", "jobs/out", "link/../etc"}) {
        EXPECT_THAT(why(path), HasSubstr("none of the agent's script-directories")) << path;
    }
    EXPECT_THAT(why("jobs/round/x"), HasSubstr("link"));
    directory_.Write("jobs/file", "x");
    EXPECT_THAT(why("jobs/file"), HasSubstr("no directory"));
    // On the way, at its end, or around a link that leads to a good place.
    fs::create_directory_symlink(root_ / "jobs", root_ / "open/hop");
    EXPECT_EQ("", why("jobs/out/daily"));
    ASSERT_EQ(0, chmod((root_ / "open").c_str(), 01777));
    EXPECT_THAT(why("jobs/out/daily"), HasSubstr("open, which others can change"));
    ASSERT_EQ(0, chmod((root_ / "jobs").c_str(), 0757));
    EXPECT_THAT(why("jobs/daily"), HasSubstr("jobs, which others can change"));
    if (geteuid() == 0) {
        ASSERT_EQ(0, lchown((root_ / "link").c_str(), 4321, 0));
        EXPECT_THAT(why("link/daily"), HasSubstr("belongs to another user"));
    }
}

TEST_F(AccessTest, TheSocketsDirectoryIsPreparedOrRefused) {
    const auto prepare = [this] { return Refusal([this] { PrepareSocketDirectory(options_, installation_); }); };
    ASSERT_EQ(0, chmod(installation_.agent_data.c_str(), 0777));
    EXPECT_EQ("none", prepare());
    EXPECT_EQ(Access(0750, getegid()), AccessTo(installation_.agent_data));

    ASSERT_EQ(0, chmod((root_ / "data").c_str(), 0700));
    EXPECT_EQ("none", prepare());
    EXPECT_EQ(Access(0700, getegid()), AccessTo(root_ / "data")) << "no group is named";
    const gid_t group = geteuid() == 0 ? 4321 : getegid();
    options_.socket_group = std::to_string(group);
    EXPECT_EQ("none", prepare());
    EXPECT_EQ(Access(0710, group), AccessTo(root_ / "data")) << "its members get to the socket";
    EXPECT_EQ(Access(0750, group), AccessTo(installation_.agent_data));
    EXPECT_EQ("none", Check());
    options_.socket_group.clear();
    EXPECT_EQ("none", prepare());
    EXPECT_EQ(getegid(), AccessTo(root_ / "data").second) << "an earlier group loses its way";
    EXPECT_EQ(getegid(), AccessTo(installation_.agent_data).second);

    const fs::path other = root_ / "run";
    fs::create_directory(other);
    options_.socket = other / "agent.sock";
    ASSERT_EQ(0, chmod(other.c_str(), 0777));
    EXPECT_THAT(prepare(), HasSubstr("chmod o-w " + other.string()));
    for (const mode_t mode : {mode_t{01777}, mode_t{0755}}) {
        ASSERT_EQ(0, chmod(other.c_str(), mode));
        EXPECT_EQ("none", prepare());
        EXPECT_EQ(mode, AccessTo(other).first) << "a directory that is not ours stays as it is";
    }
    options_.socket = socket_;
    for (const char* name : {"no-such-group", "4294967295", "4294967296"}) {
        options_.socket_group = name;
        EXPECT_THAT(prepare(), HasSubstr("There is no group \"" + std::string(name) + "\""));
    }
}

TEST_F(AccessTest, TheSocketIsGivenToItsGroup) {
    const std::string path = socket_.string();
    {
        const mode_t before = umask(0077);
        const qxphttp::UnixListener listener(path, "agent");
        umask(before);
        EXPECT_EQ(Access(0660, getegid()), AccessTo(path)) << "and not what the umask leaves";
    }
    EXPECT_THAT(RefusedListener(path, "no-such-group"), HasSubstr("no-such-group"));
    if (geteuid() != 0) {
        EXPECT_THAT(RefusedListener(path, "4321"), HasSubstr("Start as root"));
        EXPECT_FALSE(fs::exists(path));
        return;
    }
    const qxphttp::UnixListener listener(path, "agent", "4321");
    EXPECT_EQ(Access(0660, 4321), AccessTo(path));
}

TEST(UnixListenerTest, SparesTheLivingAndWhatIsNotItsOwn) {
    const TempDir directory;
    const fs::path path = directory.Path() / "agent.sock";
    {
        const qxphttp::UnixListener listener(path, "agent");
        EXPECT_THAT(RefusedListener(path), HasSubstr("Another agent is running"));
        fs::remove(directory / "agent.sock.lock");
        EXPECT_THAT(RefusedListener(path), HasSubstr("Another process is serving"));
        EXPECT_TRUE(fs::exists(path));
    }
    EXPECT_FALSE(fs::exists(path));

    {
        const qxphttp::UnixListener listener(path, "agent");
        fs::remove(path);
        directory.Write("agent.sock", "precious");
    }
    EXPECT_THAT(RefusedListener(path), HasSubstr("is not a socket"));
    EXPECT_EQ("precious", ReadFile(path)) << "what has taken its place is not removed";
    EXPECT_THAT(RefusedListener(directory / "missing/agent.sock"), HasSubstr("Create its directory"));
    EXPECT_THAT(RefusedListener(directory / std::string(120, 'x')), HasSubstr("longer than 107"));
}

}  // namespace
}  // namespace qxpagent
