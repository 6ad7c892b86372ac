// Mutated policies against a running agent: what is forecast of a document (as 'qxpctl verify' does), what the
// agent answers and what the plugin makes of it have to be one. Prints each disagreement and their count; the exit code
// is 0 when there is none.
//
//   agreement_driver SOCKET PRIVATE_KEY PUBLIC_KEY COUNT SEED

#include <algorithm>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "ctl/client/agent_client.h"
#include "ctl/client/results.h"
#include "ctl/terminal/error.h"
#include "policy/document.h"
#include "policy/forecast.h"
#include "policy/key_file.h"
#include "policy/trusted_keys.h"

namespace {

using namespace qxpctl;
using qxppolicy::Key;
using qxppolicy::ReadPrivateKey;
using qxppolicy::Sign;
using qxppolicy::TrustedKeys;

// One document after the other, each a good one with a few changes.
class Mutator {
public:
    Mutator(const std::string& key_file, unsigned seed) : key_(ReadPrivateKey(key_file)), seed_(seed), random_(seed) {}

    std::string Next() {
        Json list = Json::array();
        for (unsigned script = 0, scripts = 1 + Below(3); script < scripts; ++script) {
            list.push_back(Script("s" + std::to_string(Below(3))));
        }
        Json document = {
            {"ID", "m" + std::to_string(seed_) + "-" + std::to_string(++count_)},
            {"Command", Pick({"RunScriptNormal", "RunScriptNormal", "RunScriptFile", "RunScriptProcess", "Nothing"})},
            {"param", {{"scriptinfo", std::move(list)}}}};
        for (unsigned change = 0, changes = Below(3); change < changes; ++change) {
            Json& scripts = document["param"]["scriptinfo"];
            const bool in_script = scripts.is_array() && !scripts.empty() && scripts[0].is_object() && Below(4) != 0;
            ChangeMember(in_script ? scripts[Below(static_cast<unsigned>(scripts.size()))] : document);
            if (!document["param"].is_object()) {
                break;
            }
        }
        std::string text = document.dump(-1, ' ', Below(2) == 0, Json::error_handler_t::ignore);
        if (Below(4) == 0) {
            ChangeText(text);
        }
        return text;
    }

private:
    unsigned Below(unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random_); }
    std::string Pick(std::initializer_list<const char*> words) {
        return words.begin()[Below(static_cast<unsigned>(words.size()))];
    }

    Json Script(const std::string& id) {
        const std::string data = Pick({"ZWNobwo=", "dHJ1ZQo=", "ZmFsc2UK", ""});
        return {{"scriptid", id},
                {"scripttype", Pick({"sh", "SH", "sh", "exe", "bat", "py"})},
                {"scriptdata", data},
                {"sign", Sign(key_, Below(5) != 0 ? data : "b3RoZXIK")}};
    }

    void ChangeMember(Json& object) {
        if (!object.is_object() || object.empty()) {
            return;
        }
        auto member = object.begin();
        std::advance(member, Below(static_cast<unsigned>(object.size())));
        const std::string odd =
            Pick({"", "\"", "\\", "x\",\"msg_type\":\"4", "../x", "\xe2\x80\xae", "a b", "\n", "é", "7"});
        switch (Below(8)) {
            case 0:
                object.erase(member.key());
                return;
            case 1:
                *member = nullptr;
                return;
            case 2:
                *member = 7;
                return;
            case 3:
                *member = Json::array({odd});
                return;
            case 4:
                *member = std::string(1, '\0') + odd;
                return;
            case 5:
                object[Pick({"scriptpath", "timeout", "timeoutaction", "checkret", "ID", "id"})] =
                    Below(2) == 0 ? "/nowhere/" : odd;
                return;
            case 6:
                *member = member->is_string() ? member->get<std::string>() + odd : odd;
                return;
            default:
                *member = odd;
        }
    }

    void ChangeText(std::string& text) {
        const auto at = [&] { return Below(static_cast<unsigned>(text.size())); };
        switch (Below(6)) {
            case 0:
                text.resize(at());
                return;
            case 1:
                text[at()] = static_cast<char>(Below(256));
                return;
            case 2:
                text.insert(at(), Pick({"\xff", "\xc3", "{", "]", ",", "\"", "\\u0000", "\\ud800", " "}));
                return;
            case 3:
                text.insert(text.find('{') + 1,
                            Pick({R"("ID":"first",)", R"("Command":"RunScriptFile",)", R"("param":1,)", R"("id":1,)"}));
                return;
            case 4:
                text += Pick({" ", "x", "{}", "\xef\xbb\xbf"});
                return;
            default:
                text.insert(0, Pick({" ", "\xef\xbb\xbf", "[", "\n"}));
        }
    }

    const Key key_;
    const unsigned seed_;
    std::mt19937 random_;
    unsigned count_ = 0;
};

struct Fate {
    std::string refusal;                 // by the admission check
    bool refused = false;                // by the plugin
    std::multiset<std::string> results;  // scripts that have one

    bool operator==(const Fate&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Fate& fate) {
    out << (!fate.refusal.empty() ? "not taken: " + fate.refusal : fate.refused ? "refused" : "results of");
    for (const std::string& script : fate.results) {
        out << ' ' << script;
    }
    return out;
}

Fate ForecastOf(const std::string& document, const qxppolicy::TrustedKeys& keys, std::string& id) {
    const qxppolicy::PolicyDocument read(document);
    Fate fate;
    fate.refusal =
        read.ValidateForAdmission([](const std::string&) { return "lies in none of the agent's script-directories"; })
            .value_or("");
    if (!fate.refusal.empty()) {
        return fate;
    }
    const qxppolicy::PolicyForecast forecast = qxppolicy::Forecast(read, keys);
    id = forecast.id;
    fate.refused = !forecast.faults.empty();
    for (const qxppolicy::ScriptForecast& script : forecast.scripts) {
        if (script.reported && !fate.refused) {
            fate.results.insert(script.id);
        }
    }
    return fate;
}

Fate Send(AgentClient& agent, const std::string& document, const std::string& id) {
    Fate fate;
    try {
        agent.Submit(document);
    } catch (const CommandRefused& refusal) {
        fate.refusal = refusal.Reason();
        return fate;
    }
    for (int looks = 0; looks < 3000; ++looks) {
        const CommandDetail detail = agent.GetCommand(id);
        if (!IsFinal(detail.command.state)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        fate.refused = detail.command.state == CommandState::kRefused;
        for (const Report& report : detail.reports) {
            for (const RunResult& run : ReadReportContent(report.content).runs) {
                fate.results.insert(run.script_id);
            }
        }
        return fate;
    }
    fate.refusal = "no final state within 15 s";
    return fate;
}

int Drive(const std::vector<std::string>& arguments) {
    AgentClient agent(arguments.at(1));
    TrustedKeys keys;
    keys.AddKeyFile(arguments.at(3));
    Mutator mutator(arguments.at(2), static_cast<unsigned>(std::stoul(arguments.at(5))));
    const unsigned long count = std::stoul(arguments.at(4));
    unsigned taken = 0;
    unsigned refused = 0;
    unsigned disagreements = 0;
    std::set<std::string> ids;
    for (unsigned long i = 0; i < count; ++i) {
        const std::string document = mutator.Next();
        std::string id;
        const Fate forecast = ForecastOf(document, keys, id);
        if (forecast.refusal.empty() && !ids.insert(id).second) {
            continue;  // that ID is another document's
        }
        const Fate met = Send(agent, document, id);
        taken += met.refusal.empty() ? 1 : 0;
        refused += met.refused ? 1 : 0;
        if (forecast == met) {
            continue;
        }
        ++disagreements;
        std::cout << document << "\n  forecast: " << forecast << "\n  met:      " << met << '\n';
    }
    std::cout << count << " documents of seed " << arguments.at(5) << ": " << taken << " taken, " << refused
              << " of them refused by the plugin, " << disagreements << " disagreements\n";
    return disagreements == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Drive({argv, argv + argc});
    } catch (const std::exception& error) {
        std::cerr << "agreement_driver SOCKET PRIVATE_KEY PUBLIC_KEY COUNT SEED: " << error.what() << '\n';
        return 2;
    }
}
