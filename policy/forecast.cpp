#include "policy/forecast.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <tuple>
#include <utility>

#include "policy/vocabulary.h"
#include "qxhost/base64.h"

namespace qxppolicy {

namespace {

using Outcome = std::pair<Verdict, std::string>;

// The body that the plugin would write to the script file; nothing when it cannot be decoded.
std::optional<std::string> Decode(const std::string& base64_text) {
    int size = 0;
    const std::unique_ptr<unsigned char, decltype(&free)> bytes(
        base64Decode2(base64_text.data(), base64_text.size(), &size), free);
    if (bytes == nullptr || size <= 0) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(bytes.get()), static_cast<size_t>(size));
}

// What the plugin would run of a script that it accepts. It keeps a shell's script as text, which ends at a NUL.
Outcome ForecastBody(const std::string& base64_text, bool is_text) {
    const std::optional<std::string> body = Decode(base64_text);
    const size_t nul = body && is_text ? body->find('\0') : std::string::npos;
    if (!body) {
        return {Verdict::kNotRun, "\"scriptdata\" is not Base64: an empty file would be run"};
    }
    if (nul == 0) {
        return {Verdict::kNotRun, "it begins with a NUL byte: an empty file would be run"};
    }
    if (nul != std::string::npos) {
        return {Verdict::kCutShort, "it would be run up to its first NUL byte only"};
    }
    return {Verdict::kAccepted, ""};
}

// In the plugin's order, so that of several faults the one that it meets is told.
Outcome ForecastScript(const PolicyDocument& document, PolicyDocument::Node node, const TrustedKeys& keys,
                       ScriptForecast& script) {
    const std::optional<std::string> type = document.Member("scripttype", node);
    script.id = document.Member("scriptid", node).value_or("");
    script.type = type.value_or("");
    const std::optional<std::string> data = document.Member("scriptdata", node);
    if (!data) {
        return {Verdict::kDropped, "there is no \"scriptdata\""};
    }
    const std::optional<std::string> sign = document.Member("sign", node);
    if (!sign) {
        return {Verdict::kDropped, "there is no \"sign\""};
    }
    if (const Fault fault = keys.ValidateSignature(*sign, *data)) {
        return {Verdict::kDropped, "bad signature: " + *fault};
    }
    if (!type) {
        return {Verdict::kDropped, "there is no \"scripttype\""};
    }
    const TypeHandling handling = HandlingOf(*type);
    if (handling == TypeHandling::kUnsupported) {
        return {Verdict::kDropped, fmt::format("the type \"{}\" is not supported", *type)};
    }
    if (handling == TypeHandling::kNeverRun) {
        return {Verdict::kNotRun, fmt::format("scripts of the type \"{}\" are never run", *type)};
    }
    script.reported = true;
    return ForecastBody(*data, handling == TypeHandling::kShell);
}

void ForecastCommand(const PolicyDocument& document, PolicyForecast& forecast) {
    const std::optional<std::string> id = document.Member("ID");
    const std::optional<std::string> command = document.Member("Command");
    forecast.id = id.value_or("");
    forecast.command = command.value_or("");
    if (forecast.id.empty()) {
        forecast.faults.emplace_back(id ? "\"ID\" is empty" : "there is no \"ID\"");
    }
    if (!command) {
        forecast.faults.emplace_back("there is no \"Command\"");
    } else if (!IsRunCommand(*command)) {
        forecast.faults.push_back(fmt::format("the \"Command\" \"{}\" is none of {}, {} and {}", *command, kRunNormal,
                                              kRunFile, kRunProcess));
    }
}

void ForecastScripts(const PolicyDocument& document, const TrustedKeys& keys, PolicyForecast& forecast) {
    if (document.ScriptsFault()) {
        forecast.faults.push_back(*document.ScriptsFault());
        return;
    }
    size_t accepted = 0;
    for (const PolicyDocument::Node node : document.Scripts()) {
        ScriptForecast& script = forecast.scripts.emplace_back();
        std::tie(script.verdict, script.reason) = ForecastScript(document, node, keys, script);
        accepted += script.verdict != Verdict::kDropped ? 1 : 0;
    }
    if (accepted == 0) {
        forecast.faults.emplace_back("no script is left to run");
    }
    if (accepted > kMaxScripts) {
        forecast.faults.push_back(
            fmt::format("{} scripts are more than the {} that may run at once", accepted, kMaxScripts));
    }
}

}  // namespace

bool PolicyForecast::IsGood() const {
    return faults.empty() && std::all_of(scripts.begin(), scripts.end(), [](const ScriptForecast& script) {
               return script.verdict == Verdict::kAccepted;
           });
}

PolicyForecast Forecast(const PolicyDocument& document, const TrustedKeys& keys) {
    PolicyForecast forecast;
    ForecastCommand(document, forecast);
    ForecastScripts(document, keys, forecast);
    return forecast;
}

}  // namespace qxppolicy
