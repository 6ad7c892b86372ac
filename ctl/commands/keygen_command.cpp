#include "ctl/commands/commands.h"
#include "ctl/terminal/files.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"
#include "policy/key_file.h"

namespace qxpctl {

namespace {

using qxppolicy::GenerateKey;
using qxppolicy::KeyPairText;
using qxppolicy::Scheme;
using qxppolicy::SchemeName;
using qxppolicy::WriteKeyPair;

struct KeygenOptions {
    std::string scheme = "plugin";
    std::string prefix;
    bool force = false;
};

constexpr const char* kFooter = R"(Two schemes:
  plugin   RSA, 1024 bits. A plugin carries the one public key that it was built with
  ed25519  An agent trusts every public key in its directory etc/trusted-keys; keys can be added and withdrawn at
           any time, without a restart

Examples:
  qxpctl keygen --scheme ed25519 --out ops
      makes ops.key.pem and ops.pub.pem; then, on every machine:
      install -m 0644 ops.pub.pem <installation>/etc/trusted-keys/
  qxpctl keygen --scheme plugin --out vendor
      makes the pair for a build of the plugin:
      cmake -B build -DQXPMAINT_PUBLIC_KEY=vendor.pub.pem

The private half (.key.pem, mode 0600) signs whatever will run as root: keep it on the signing machine, and keep a copy
where only you can get at it.)";

ExitCode MakeKeys(const KeygenOptions& options, const Console& console, const CommonOptions& common) {
    const Scheme scheme = options.scheme == SchemeName(Scheme::kPlugin) ? Scheme::kPlugin : Scheme::kEd25519;
    const std::string private_file = options.prefix + ".key.pem";
    const std::string public_file = options.prefix + ".pub.pem";
    // Both halves are on the disk before either gets its name.
    StagedFile private_half(private_file, 0600);
    StagedFile public_half(public_file, 0644);
    const KeyPairText text = WriteKeyPair(GenerateKey(scheme));
    private_half.Write(text.private_pem);
    public_half.Write(text.public_pem);
    StagedFile::CommitBoth(private_half, public_half, options.force);

    if (common.json) {
        console.Print(
            ToLine({{"scheme", SchemeName(scheme)}, {"private_key", private_file}, {"public_key", public_file}}));
        return ExitCode::kSuccess;
    }
    const std::string advice =
        scheme == Scheme::kPlugin
            ? fmt::format("build the plugin with it (-DQXPMAINT_PUBLIC_KEY={})", ShellWord(public_file))
            : "copy it into etc/trusted-keys/ of every installation that shall trust it";
    console.Print(fmt::format("{}: private; keep it secret and sign with it (qxpctl pack --key)\n{}: public; {}\n",
                              OneLine(private_file), OneLine(public_file), OneLine(advice)));
    return ExitCode::kSuccess;
}

}  // namespace

void AddKeygenCommand(const CommandSetup& program) {
    const auto [command, options] =
        AddSubCommand(program, "keygen", "Make a pair of keys to sign scripts with", kFooter, MakeKeys);
    command.Value("--scheme", "NAME", options->scheme, "plugin or ed25519").OneOf({"plugin", "ed25519"}).ShowDefault();
    command.Value("--out,-o", "PREFIX", options->prefix, "Writes PREFIX.key.pem and PREFIX.pub.pem").Required();
    command.Flag("--force", options->force, "Replace existing files; what they signed stays signed");
    command.JsonOption();
}

}  // namespace qxpctl
