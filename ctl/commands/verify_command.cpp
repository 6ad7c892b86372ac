#include <filesystem>

#include "base/input_file.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"
#include "policy/forecast.h"

namespace qxpctl {

namespace {

using qxppolicy::PolicyForecast;
using qxppolicy::ScriptForecast;
using qxppolicy::TrustedKeys;
using qxppolicy::Verdict;

struct VerifyOptions {
    std::vector<std::string> key_files;
    std::string trust_directory;
    std::string policy;
};

constexpr const char* kFooter =
    R"(Prints a line a script: accepted, accepted but not run (or cut short), or dropped, and why; and a line for each fault of the policy as a
whole. What the plugin checks, in this order: scriptdata is there; sign is there; the signature is good; scripttype is
there; the type is supported. What an agent would not take, as a path that means something to a shell, is a fault of
the policy.

A run-once policy needs no "ID" and no "Command"; a command does, and that is what is checked here.

Examples:
  qxpctl verify policy.json                               with what this machine trusts, but for the plugin's own key
  qxpctl verify --key vendor.pub.pem policy.json
  qxpctl verify --trust-dir /opt/qxpmaint/etc/trusted-keys policy.json
  qxpctl pack --key ops.key.pem disk-check.sh | qxpctl verify --key ops.pub.pem -)";

TrustedKeys ReadKeys(const VerifyOptions& options) {
    TrustedKeys keys;
    for (const std::string& file : options.key_files) {
        keys.AddKeyFile(file);
    }
    if (!options.trust_directory.empty()) {
        keys.SetDirectory(options.trust_directory);
    } else if (options.key_files.empty()) {
        const std::filesystem::path directory = std::filesystem::path(InstallationRoot()) / "etc/trusted-keys";
        std::error_code failure;
        if (!std::filesystem::is_directory(directory, failure)) {
            throw BadInput(
                "name what to check with: --key PUBLIC.pem, --trust-dir DIR, or both; this program is in no "
                "installation whose keys could be used");
        }
        keys.SetDirectory(directory.string());
    }
    return keys;
}

const char* VerdictName(Verdict verdict) {
    switch (verdict) {
        case Verdict::kAccepted:
            return "accepted";
        case Verdict::kNotRun:
            return "accepted but not run";
        case Verdict::kCutShort:
            return "accepted but cut short";
        case Verdict::kDropped:
            break;
    }
    return "dropped";
}

Color VerdictColor(Verdict verdict) {
    if (verdict == Verdict::kAccepted) {
        return Color::kGreen;
    }
    return verdict == Verdict::kDropped ? Color::kRed : Color::kYellow;
}

std::string AsJson(const PolicyForecast& forecast) {
    Json result = {{"accepted", forecast.IsGood()},
                   {"id", forecast.id},
                   {"command", forecast.command},
                   {"faults", forecast.faults},
                   {"scripts", Json::array()}};
    for (const ScriptForecast& script : forecast.scripts) {
        result["scripts"].push_back({{"scriptid", script.id},
                                     {"scripttype", script.type},
                                     {"verdict", VerdictName(script.verdict)},
                                     {"reason", script.reason}});
    }
    return ToLine(result);
}

std::string AsText(const PolicyForecast& forecast, const Stream& output) {
    std::string text;
    for (const std::string& fault : forecast.faults) {
        text += fmt::format("policy: {}: {}\n", output.Paint(Color::kRed, "refused"), OneLine(fault));
    }
    size_t number = 0;
    for (const ScriptForecast& script : forecast.scripts) {
        text += fmt::format("script {}{}: {}{}\n", ++number,
                            script.id.empty() ? "" : fmt::format(" ({})", OneLine(script.id)),
                            output.Paint(VerdictColor(script.verdict), VerdictName(script.verdict)),
                            script.reason.empty() ? "" : ": " + OneLine(script.reason));
    }
    return text;
}

ExitCode Verify(const VerifyOptions& options, const Console& console, const CommonOptions& common) {
    const TrustedKeys keys = ReadKeys(options);
    const qxppolicy::PolicyDocument document(
        qxpbase::ReadDocument(options.policy, qxppolicy::kMaxPolicyBytes, "policy"));
    if (!document.IsReadable()) {
        throw BadInput((options.policy == "-" ? "the standard input" : options.policy) +
                       " is not a JSON document; make a policy with 'qxpctl pack'");
    }
    PolicyForecast forecast = qxppolicy::Forecast(document, keys);
    if (const qxppolicy::Fault fault = document.ValidateForAdmission(); forecast.faults.empty() && fault) {
        forecast.faults.push_back("an agent does not take it: " + *fault);
    }
    console.Print(common.json ? AsJson(forecast) : AsText(forecast, console.Output()));
    return forecast.IsGood() ? ExitCode::kSuccess : ExitCode::kNegative;
}

}  // namespace

void AddVerifyCommand(const CommandSetup& program) {
    const auto [command, options] = AddSubCommand(
        program, "verify", "Tell which scripts of a policy the plugin would accept, and why not", kFooter, Verify);
    command.Values("--key,-k", "FILE", options->key_files,
                   "A public key that the plugin trusts (PEM): the RSA key\n"
                   "it was built with, or an Ed25519 key; may be repeated");
    command.Value("--trust-dir", "DIR", options->trust_directory,
                  "The agent's directory of trusted Ed25519 keys\n[without --key: that of this installation]");
    command.Argument("POLICY", options->policy, "The policy document; '-' is the standard input").Required();
    command.JsonOption();
}

}  // namespace qxpctl
