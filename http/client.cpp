#include "http/client.h"

#include <curl/curl.h>
#include <sys/un.h>

#include <memory>
#include <utility>

namespace qxphttp {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kTickInterval{100};

template <auto Release>
struct Free {
    template <typename Handle>
    void operator()(Handle* handle) const {
        Release(handle);
    }
};

size_t Receive(char* data, size_t /*one*/, size_t size, void* body) {
    auto& text = *static_cast<std::string*>(body);
    if (text.size() + size > kMaxAnswerBytes) {
        return 0;
    }
    text.append(data, size);
    return size;
}

// One request on its way.
class Transfer {
public:
    Transfer(const std::string& url, const std::string& socket, const std::string* body, milliseconds timeout)
        : easy_(curl_easy_init()), multi_(curl_multi_init()) {
        if (easy_ == nullptr || multi_ == nullptr) {
            throw RequestError(RequestError::Cause::kNoClient, "libcurl cannot be initialised");
        }
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
        if (body == nullptr) {
            return;
        }
        headers_.reset(curl_slist_append(nullptr, "Content-Type: application/json"));
        // No waiting for "100 Continue": the server is on this machine.
        curl_slist_append(headers_.get(), "Expect:");
        Set(CURLOPT_HTTPHEADER, headers_.get());
        Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        Set(CURLOPT_POSTFIELDS, body->data());
    }
    ~Transfer() {
        if (started_) {
            curl_multi_remove_handle(multi_.get(), easy_.get());
        }
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // False when tick gave up.
    bool Run(const Tick& tick) {
        started_ = curl_multi_add_handle(multi_.get(), easy_.get()) == CURLM_OK;
        int running = started_ ? 1 : 0;
        while (running > 0) {
            if (tick != nullptr && !tick()) {
                return false;
            }
            if (curl_multi_perform(multi_.get(), &running) != CURLM_OK) {
                break;
            }
            if (running > 0) {
                curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(kTickInterval.count()), nullptr);
            }
        }
        return true;
    }

    CURLcode Result() const {
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
            if (message->msg == CURLMSG_DONE) {
                return message->data.result;
            }
        }
        return CURLE_FAILED_INIT;
    }

    Answer ReleaseAnswer() {
        curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &answer_.status);
        curl_off_t seconds = 0;
        if (curl_easy_getinfo(easy_.get(), CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0) {
            answer_.retry_after = std::chrono::seconds(seconds);
        }
        return std::move(answer_);
    }

private:
    template <typename T>
    void Set(CURLoption option, T value) {
        curl_easy_setopt(easy_.get(), option, value);
    }

    std::unique_ptr<curl_slist, Free<curl_slist_free_all>> headers_;
    std::unique_ptr<CURL, Free<curl_easy_cleanup>> easy_;
    std::unique_ptr<CURLM, Free<curl_multi_cleanup>> multi_;
    Answer answer_;
    bool started_ = false;
};

}  // namespace

std::optional<Answer> Perform(const std::string& socket_path, const std::string& target, const std::string* body,
                              milliseconds timeout, const Tick& tick) {
    using Cause = RequestError::Cause;
    static const CURLcode kInitialised = curl_global_init(CURL_GLOBAL_NOTHING);
    if (kInitialised != CURLE_OK) {
        throw RequestError(Cause::kNoClient, "libcurl cannot be initialised");
    }
    // The host's name is not looked at: the socket is the address.
    Transfer transfer("http://localhost" + target, socket_path, body, timeout);
    if (!transfer.Run(tick)) {
        return std::nullopt;
    }
    const CURLcode result = transfer.Result();
    switch (result) {
        case CURLE_OK:
            return transfer.ReleaseAnswer();
        case CURLE_COULDNT_CONNECT:
            throw RequestError(Cause::kUnreachable, curl_easy_strerror(result));
        case CURLE_OPERATION_TIMEDOUT:
            throw RequestError(Cause::kTimedOut, curl_easy_strerror(result));
        case CURLE_WRITE_ERROR:
            throw RequestError(Cause::kTooLarge, curl_easy_strerror(result));
        default:
            throw RequestError(Cause::kBroken, curl_easy_strerror(result));
    }
}

size_t MaxSocketPathBytes() {
    return sizeof(sockaddr_un::sun_path) - 1;
}

std::string EscapeForUrl(const std::string& text) {
    const std::unique_ptr<char, Free<curl_free>> escaped(
        curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())));
    return escaped != nullptr ? std::string(escaped.get()) : std::string();
}

}  // namespace qxphttp
