#include "ctl/client/agent_http.h"

#include <curl/curl.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "ctl/client/socket_access.h"
#include "qxhost/module.h"

namespace qxpctl {

namespace {

using std::chrono::milliseconds;

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

// One request on its way.
class Transfer {
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
        // An ID of dots is a path segment like any other.
        Set(CURLOPT_PATH_AS_IS, 1L);
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

    HttpAnswer TakeAnswer() {
        curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &answer_.status);
        curl_off_t seconds = 0;
        if (curl_easy_getinfo(easy_.get(), CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0)
            answer_.retry_after = std::chrono::seconds(seconds);
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
    HttpAnswer answer_;
    bool started_ = false;
};

}  // namespace

AgentHttp::AgentHttp(std::string socket_path) : socket_path_(std::move(socket_path)) {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_NOTHING);
    if (initialised != CURLE_OK)
        throw LocalFailure("libcurl cannot be initialised");
    if (socket_path_.size() >= sizeof(sockaddr_un::sun_path))
        throw BadInput("the socket path " + socket_path_ + " is longer than the " +
                       std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes that a Unix socket may have");
}

std::optional<HttpAnswer> AgentHttp::Perform(const std::string& target, const std::string* body, milliseconds timeout,
                                             const Tick& tick) const {
    // The host's name is not looked at: the socket is the address.
    Transfer transfer("http://agent" + target, socket_path_, body, timeout);
    if (!transfer.Run(tick))
        return std::nullopt;
    const CURLcode result = transfer.Result();
    if (result == CURLE_COULDNT_CONNECT)
        FailUnreachable(AgentAway::Cause::Unreachable, "nothing answers on " + socket_path_);
    if (result == CURLE_OPERATION_TIMEDOUT)
        FailUnreachable(AgentAway::Cause::Broken, "the agent on " + socket_path_ + " does not answer in time");
    if (result == CURLE_WRITE_ERROR)
        FailForeign("its answer is larger than " + std::to_string(kMaxAnswerBytes) + " bytes");
    if (result != CURLE_OK)
        FailUnreachable(AgentAway::Cause::Broken, "the connection to the agent on " + socket_path_ + " broke (" +
                                                      curl_easy_strerror(result) + ")");
    return transfer.TakeAnswer();
}

void AgentHttp::FailUnreachable(AgentAway::Cause cause, const std::string& reason) const {
    const int failure = access(socket_path_.c_str(), R_OK | W_OK) == 0 ? 0 : errno;
    if (failure == ENOENT || failure == ENOTDIR)
        throw AgentAway(
            cause,
            "there is no agent socket " + socket_path_ +
                "; start qxpagent (systemctl start qxpagent), or name its socket with --socket or QXPAGENT_SOCKET");
    if (failure == EACCES)
        throw AgentUnavailable("no permission to use the agent socket " + socket_path_ + "; " +
                               WhoMayUse(socket_path_));
    throw AgentAway(cause, reason + "; is qxpagent running, and is this its socket (--socket, QXPAGENT_SOCKET)?");
}

void AgentHttp::FailForeign(const std::string& what) const {
    throw AgentUnavailable("what answers on " + socket_path_ + " does not speak like qxpagent: " + what +
                           "; check --socket");
}

std::string EscapeForUrl(const std::string& text) {
    const std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), curl_free);
    return escaped ? std::string(escaped.get()) : std::string();
}

std::string InstallationRoot() {
    // Any address in this program tells where it lies.
    static const char kHere = 0;
    constexpr unsigned int kMaxPath = 4096;
    std::string directory(kMaxPath + 1, '\0');
    if (!QxGetModuleFilePath(&kHere, directory.data(), kMaxPath))
        throw LocalFailure("cannot tell where this program lies; name the agent's socket with --socket");
    return std::filesystem::path(directory.c_str()).parent_path().string();
}

std::string FindSocket(const std::string& option) {
    if (!option.empty())
        return option;
    const char* const environment = std::getenv("QXPAGENT_SOCKET");
    if (environment && *environment)
        return environment;
    return (std::filesystem::path(InstallationRoot()) / "data/qxpagent/agent.sock").string();
}

}  // namespace qxpctl
