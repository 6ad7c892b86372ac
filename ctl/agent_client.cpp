#include "ctl/agent_client.h"

#include <curl/curl.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "ctl/error.h"
#include "ctl/text.h"
#include "qxhost/module.h"

namespace qxpctl {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kDefaultTimeout{120000};
constexpr milliseconds kTickInterval{100};
// Room for a page of the largest reports that a policy can make; beyond it something is wrong at the other end.
constexpr size_t kMaxAnswerBytes = size_t{1} << 30;

struct EasyFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct MultiFree {
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t Receive(char* data, size_t /*one*/, size_t size, void* body) {
    auto& text = *static_cast<std::string*>(body);
    if (text.size() + size > kMaxAnswerBytes)
        return 0;
    text.append(data, size);
    return size;
}

// A text member of an answer, or what stands for it.
std::string TextOr(const Json& object, const char* key, const std::string& otherwise) {
    const auto member = object.find(key);
    return member != object.end() && member->is_string() ? member->get<std::string>() : otherwise;
}

const Json* Find(const Json& object, const char* key) {
    if (!object.is_object())
        return nullptr;
    const auto member = object.find(key);
    return member == object.end() ? nullptr : &*member;
}

std::string EscapeForUrl(const std::string& text) {
    const std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), curl_free);
    return escaped ? std::string(escaped.get()) : std::string();
}

}  // namespace

// One request on its way.
class AgentClient::Transfer {
public:
    Transfer(const std::string& url, const std::string& socket, const std::string* body, milliseconds timeout)
        : easy_(curl_easy_init()), multi_(curl_multi_init()) {
        if (!easy_ || !multi_)
            throw LocalFailure("libcurl cannot be initialised");
        Set(CURLOPT_URL, url.c_str());
        Set(CURLOPT_UNIX_SOCKET_PATH, socket.c_str());
        // A proxy of the environment has no part in this.
        Set(CURLOPT_PROXY, "");
        Set(CURLOPT_NOSIGNAL, 1L);
        Set(CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
        Set(CURLOPT_WRITEFUNCTION, Receive);
        Set(CURLOPT_WRITEDATA, &answer_.body);
        if (!body)
            return;
        headers_.reset(curl_slist_append(nullptr, "Content-Type: application/json"));
        // No waiting for "100 Continue": the agent is on this machine.
        curl_slist_append(headers_.get(), "Expect:");
        Set(CURLOPT_HTTPHEADER, headers_.get());
        Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        Set(CURLOPT_POSTFIELDS, body->data());
    }
    ~Transfer() {
        if (started_)
            curl_multi_remove_handle(multi_.get(), easy_.get());
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// False when tick gave up.
    bool Run(const Tick& tick) {
        started_ = curl_multi_add_handle(multi_.get(), easy_.get()) == CURLM_OK;
        int running = started_ ? 1 : 0;
        while (running > 0) {
            if (tick && !tick())
                return false;
            if (curl_multi_perform(multi_.get(), &running) != CURLM_OK)
                break;
            if (running > 0)
                curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(kTickInterval.count()), nullptr);
        }
        return true;
    }

    CURLcode Result() const {
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
            if (message->msg == CURLMSG_DONE)
                return message->data.result;
        }
        return CURLE_FAILED_INIT;
    }

    Answer TakeAnswer() {
        curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &answer_.status);
        return std::move(answer_);
    }

private:
    template <typename T>
    void Set(CURLoption option, T value) {
        curl_easy_setopt(easy_.get(), option, value);
    }

    std::unique_ptr<curl_slist, ListFree> headers_;
    std::unique_ptr<CURL, EasyFree> easy_;
    std::unique_ptr<CURLM, MultiFree> multi_;
    Answer answer_;
    bool started_ = false;
};

AgentClient::AgentClient(std::string socket_path) : socket_path_(std::move(socket_path)), timeout_(kDefaultTimeout) {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_NOTHING);
    if (initialised != CURLE_OK)
        throw LocalFailure("libcurl cannot be initialised");
    if (socket_path_.size() >= sizeof(sockaddr_un::sun_path))
        throw BadInput("the socket path " + socket_path_ + " is longer than the " +
                       std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes that a Unix socket may have");
}

AgentClient::~AgentClient() = default;

AgentStatus AgentClient::GetStatus() {
    const Json status = Read(Perform("/v1/status", nullptr, timeout_, {}).value());
    const Json* const reports = Find(status, "reports");
    const Json* const cursor = reports ? Find(*reports, "last_cursor") : nullptr;
    if (!cursor || !cursor->is_number_unsigned())
        FailForeign("its status names no last cursor");
    return {cursor->get<uint64_t>(), TextOr(status, "result_directory", "")};
}

std::optional<std::string> AgentClient::Submit(const std::string& document, const Tick& tick) {
    const std::optional<Answer> answer = Perform("/v1/commands", &document, timeout_, tick);
    if (!answer)
        return std::nullopt;
    const Json accepted = Read(*answer);
    const Json* const id = Find(accepted, "id");
    if (!id || !id->is_string())
        FailForeign("it did not say which ID it took");
    return id->get<std::string>();
}

std::optional<ReportPage> AgentClient::GetReports(const std::string& policy_id, uint64_t after,
                                                  std::chrono::seconds wait, const Tick& tick) {
    wait = std::clamp(wait, std::chrono::seconds(0), kMaxPoll);
    const std::string path = "/v1/reports?id=" + EscapeForUrl(policy_id) + "&after=" + std::to_string(after) +
                             "&wait=" + std::to_string(wait.count());
    const std::optional<Answer> answer = Perform(path, nullptr, wait + timeout_, tick);
    if (!answer)
        return std::nullopt;
    Json body = Read(*answer);
    const Json* const reports = Find(body, "reports");
    const Json* const cursor = Find(body, "cursor");
    if (!reports || !reports->is_array() || !cursor || !cursor->is_number_unsigned())
        FailForeign("its list of reports cannot be read");
    ReportPage page;
    page.cursor = cursor->get<uint64_t>();
    for (Json& report : body["reports"])
        page.reports.push_back({report.is_object() ? std::move(report["document"]) : Json()});
    return page;
}

std::optional<AgentClient::Answer> AgentClient::Perform(const std::string& path, const std::string* body,
                                                        milliseconds timeout, const Tick& tick) {
    // The host's name is not looked at: the socket is the address.
    Transfer transfer("http://agent" + path, socket_path_, body, timeout);
    if (!transfer.Run(tick))
        return std::nullopt;
    const CURLcode result = transfer.Result();
    if (result == CURLE_COULDNT_CONNECT)
        FailUnreachable("nothing answers on " + socket_path_);
    if (result == CURLE_OPERATION_TIMEDOUT)
        FailUnreachable("the agent on " + socket_path_ + " does not answer in time");
    if (result == CURLE_WRITE_ERROR)
        FailForeign("its answer is larger than " + std::to_string(kMaxAnswerBytes) + " bytes");
    if (result != CURLE_OK)
        FailUnreachable("the connection to the agent on " + socket_path_ + " broke (" + curl_easy_strerror(result) +
                        ")");
    return transfer.TakeAnswer();
}

Json AgentClient::Read(const Answer& answer) const {
    Json body = Json::parse(answer.body, nullptr, false);
    const bool success = answer.status >= 200 && answer.status < 300;
    if (success && body.is_object())
        return body;
    if (success)
        FailForeign("its answer is not a JSON object");
    const std::string status = "status " + std::to_string(answer.status);
    const std::string detail = body.is_object() ? TextOr(body, "detail", TextOr(body, "title", status)) : status;
    // 4xx: this request cannot succeed as it is. Anything else is the agent's own trouble.
    if (answer.status >= 400 && answer.status < 500)
        throw BadInput("the agent refuses: " + detail);
    throw AgentUnavailable("the agent on " + socket_path_ + " cannot do this now: " + detail +
                           "; see its log and try again");
}

void AgentClient::FailUnreachable(const std::string& reason) const {
    const int failure = access(socket_path_.c_str(), R_OK | W_OK) == 0 ? 0 : errno;
    if (failure == ENOENT || failure == ENOTDIR)
        throw AgentUnavailable("there is no agent socket " + socket_path_ +
                               "; start qxpagent, or name its socket with --socket or QXPAGENT_SOCKET");
    if (failure == EACCES)
        throw AgentUnavailable("no permission to use the agent socket " + socket_path_ +
                               "; try again as the user of the agent, which is root as a rule");
    throw AgentUnavailable(reason + "; is qxpagent running, and is this its socket (--socket, QXPAGENT_SOCKET)?");
}

void AgentClient::FailForeign(const std::string& what) const {
    throw AgentUnavailable("what answers on " + socket_path_ + " does not speak like qxpagent: " + what +
                           "; check --socket");
}

std::string FindSocket(const std::string& option) {
    if (!option.empty())
        return option;
    const char* const environment = std::getenv("QXPAGENT_SOCKET");
    if (environment && *environment)
        return environment;
    // Any address in this program tells where it lies.
    static const char kHere = 0;
    constexpr unsigned int kMaxPath = 4096;
    std::string directory(kMaxPath + 1, '\0');
    if (!QxGetModuleFilePath(&kHere, directory.data(), kMaxPath))
        throw LocalFailure("cannot tell where this program lies; name the agent's socket with --socket");
    const std::filesystem::path bin(directory.c_str());
    return (bin / "../data/qxpagent/agent.sock").lexically_normal().string();
}

}  // namespace qxpctl
