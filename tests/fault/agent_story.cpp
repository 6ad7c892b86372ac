// A life of the agent's store, its command service and its bus, under faults. What was acknowledged must be there when
// the store is opened again without any, and no command reaches the plugin twice. Exit code 0, or a line for each
// breach.

#include <dlfcn.h>

#include <array>
#include <cstring>
#include <iostream>

#include "agent/bus/components.h"
#include "agent/bus/endpoint.h"
#include "agent/commands/command_service.h"
#include "agent/records/report_document.h"
#include "agent/reports/report_intake.h"
#include "policy/trusted_keys.h"
#include "tests/plugin/plugin_host.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace qxpagent {
namespace {

constexpr size_t kCommands = 4;
const qxpbase::Peer kPeer{1000, 1000, 4321, "operator"};

// What the outside was told; kept where no fault can lose it.
struct Told {
    bool taken = false;        // the sender: the command is accepted
    bool refused = false;      // the sender: it is not
    unsigned handed_over = 0;  // the plugin has got it so often
    bool reported = false;     // the plugin: its report is stored
    bool file_stored = false;
    bool acknowledged = false;  // the reader: the report is acknowledged
};
using Record = std::array<Told, kCommands>;

std::string Id(size_t i) {
    return "c" + std::to_string(i);
}

std::string ReportText(size_t i, const std::string& script) {
    return R"({"ID":")" + Id(i) + R"(","msg_type":"1","data":{"result":[{"scriptid":")" + script +
           R"(","run_starttime":"2024-01-01 00:00:00","filepath":"f","run_result":"1","run_outdata":")" +
           std::string(5000, 'o') + R"(","run_endtime":"x","run_runningtime":"2"}]}})";
}

std::string Envelope(const std::string& text) {
    std::string bytes(kEnvelopeHeaderBytes, '\0');
    bytes[0] = 1;
    for (size_t i = 0; i < 4; ++i) {
        bytes[144 + i] = static_cast<char>(text.size() >> (8 * i));
    }
    return bytes + text + '\0';
}

// The parts of an agent, and a plugin that acknowledges each command.
class Life final : IMRReceiveComplete {
public:
    Life(const StoreOptions& options, const qxppolicy::TrustedKeys& keys, Record& record)
        : record_(record),
          store_(options),
          intake_(
              store_, counters_, [this](const std::string& id) { return commands_.MayBeRefused(id); }, [] {}),
          server_data_(bus_),
          manager_(bus_, [this](std::string_view body) { return intake_.AcceptMessage(body); }),
          plugin_(bus_),
          commands_(store_, counters_, keys, nullptr,
                    [this](std::string document, uint32_t) { return server_data_.Send(std::move(document)); }) {
        Require(plugin_.Initialize(kPluginId));
        Require(plugin_.RegisterReceive(kCommandMessage, this, nullptr));
    }
    ~Life() override { bus_.Shutdown(); }

    void LoadOrphans() {
        commands_.LoadOrphans();
        commands_.RetryPending();
    }
    void Submit(size_t i, const std::string& document) {
        const SubmitStatus status = commands_.Submit(document, kPeer).status;
        const bool taken = status == SubmitStatus::kTaken || status == SubmitStatus::kKnown;
        record_[i].taken = taken;
        record_[i].refused = !taken && status != SubmitStatus::kNotAcknowledged;
    }
    void Report(size_t i) {
        const std::string bytes = Envelope(ReportText(i, "a"));
        if (plugin_.SendAsync(kManagerId, kReportMessage, reinterpret_cast<const unsigned char*>(bytes.data()),
                              static_cast<unsigned int>(bytes.size()), nullptr, nullptr, nullptr, 5000) == kBusOk) {
            record_[i].reported = intake_.StoreWaiting() == 0;
        }
    }
    void StoreFile(size_t i) {
        const std::string text = ReportText(i, "b");
        intake_.AcceptFile({Id(i) + ".json", 1, text.size(), "sum"}, text, ReadReport(text));
        record_[i].file_stored = true;
    }
    void Acknowledge(size_t i) {
        const auto reports = store_.ListReports({.id = Id(i), .source = ReportSource::kPlugin});
        if (!reports.empty() && store_.Acknowledge({reports[0].cursor}) == 1) {
            record_[i].acknowledged = true;
        }
    }
    void Maintain() {
        store_.Probe();
        store_.Retain({}, std::chrono::system_clock::now());
    }
    void End() { commands_.InterruptAll("the agent ended"); }

    Store& store() { return store_; }

private:
    static void Require(int status) {
        if (status != kBusOk) {
            throw std::runtime_error("the plugin is not on the bus");
        }
    }
    void ReceiveCallback(const GUID&, long type, const unsigned char* data, unsigned int length, void* token,
                         void*) override {
        for (size_t i = 0; i < kCommands; ++i) {
            const char id[] = {'"', 'c', static_cast<char>('0' + i), '"'};
            record_[i].handed_over += memmem(data, length, id, sizeof id) ? 1 : 0;
        }
        plugin_.Reply(0, type, reinterpret_cast<const unsigned char*>("success"), 7, token);
    }

    Record& record_;
    RunCounters counters_;
    Store store_;
    ReportIntake intake_;
    MessageBus bus_;
    ServerData server_data_;
    Manager manager_;
    Endpoint plugin_;
    CommandService commands_;
};

template <typename Step>
bool Try(const Step& step) {
    try {
        step();
        return true;
    } catch (const std::exception&) {
        return false;  // and so nothing was acknowledged
    }
}

class Story {
public:
    Story() {
        keys_.AddKeyFile(QXPMAINT_TEST_PUBLIC_KEY);
        const qxppolicy::Key signer = qxppolicy::ReadPrivateKey(QXPMAINT_TEST_SIGNING_KEY);
        for (size_t i = 0; i < kCommands; ++i) {
            documents_[i] = MakePolicy(signer, Id(i), "RunScriptNormal",
                                       {{.id = "a", .body = "echo"}, {.id = "b", .body = std::string(9000, '#')}});
        }
    }

    int Tell() {
        auto* arm = reinterpret_cast<unsigned (*)(int)>(dlsym(RTLD_DEFAULT, "qxp_faults_arm"));
        if (arm) {
            arm(1);
        }
        // What cannot begin is begun again, as a service manager does.
        if (!Try([&] { Live(); })) {
            Try([&] { Live(); });
        }
        if (arm) {
            arm(0);
        }
        try {
            Check();
        } catch (const std::exception& error) {
            Complain(0, error.what());
        }
        return complaints_ == 0 ? 0 : 1;
    }

private:
    void Live() {
        Life life(options_, keys_, record_);
        Try([&] { life.LoadOrphans(); });
        for (size_t i = 0; i < kCommands; ++i) {
            if (record_[i].taken || record_[i].refused) {
                continue;
            }
            Try([&] { life.Submit(i, documents_[i]); });
            if (i == 0) {
                continue;  // is never heard of
            }
            Try([&] { life.Report(i); });
            Try([&] { life.StoreFile(i); });
            Try([&] { life.Acknowledge(i); });
        }
        Try([&] { life.Maintain(); });
        Try([&] { life.End(); });
    }

    void Check() {
        for (const auto& file : std::filesystem::directory_iterator(directory_.Path())) {
            if (file.path().string().find(".corrupt-") != std::string::npos) {
                Complain(0, "the store was found to be damaged: " + file.path().filename().string());
            }
        }
        const Record before = record_;
        Life life(options_, keys_, record_);
        life.LoadOrphans();
        for (size_t i = 0; i < kCommands; ++i) {
            const auto command = life.store().FindCommand(Id(i));
            if ((before[i].taken || before[i].handed_over != 0) && !command.has_value()) {
                Complain(i, "was acknowledged or handed over and is not in the journal");
            }
            if (command.has_value() && record_[i].handed_over != 0 && command->state == CommandState::kReceived) {
                Complain(i, "was handed over and is journalled as if it had not been");
            }
            if (record_[i].handed_over > 1) {
                Complain(i, "was handed over twice");
            }
            if (before[i].refused && record_[i].handed_over != 0) {
                Complain(i, "was handed over though its sender was told that it is not taken");
            }
            CheckReport(life, i, ReportSource::kPlugin, before[i].reported, ReportText(i, "a"));
            CheckReport(life, i, ReportSource::kFile, before[i].file_stored, ReportText(i, "b"));
            const auto reports = life.store().ListReports({.id = Id(i), .source = ReportSource::kPlugin});
            if (before[i].acknowledged && (reports.empty() || !reports[0].acknowledged.has_value())) {
                Complain(i, "the acknowledgement of its report is lost");
            }
        }
        life.End();
        if (!life.store().IdsIn(CommandState::kDelivered).empty()) {
            Complain(0, "a command is left without a final state");
        }
    }

    void CheckReport(Life& life, size_t i, ReportSource source, bool stored, const std::string& text) {
        const auto reports = life.store().ListReports({.id = Id(i), .source = source});
        if (stored && (reports.empty() || reports[0].text != text)) {
            Complain(i, "a report that was taken is lost or another");
        }
        if (reports.size() > 1) {
            Complain(i, "a report is there twice");
        }
    }

    void Complain(size_t i, const std::string& what) {
        ++complaints_;
        std::cout << "  " << Id(i) << ": " << what << '\n';
    }

    const TempDir directory_;
    const StoreOptions options_{.path = directory_.Path() / "agent.db", .busy = std::chrono::milliseconds(100)};
    qxppolicy::TrustedKeys keys_;
    std::array<std::string, kCommands> documents_;
    Record record_;
    int complaints_ = 0;
};

}  // namespace
}  // namespace qxpagent

int main() {
    return qxpagent::Story().Tell();
}
