#include "http/server.h"

#include <microhttpd.h>
#include <pthread.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "base/peer.h"
#include "base/startup_error.h"
#include "base/whole_number.h"

namespace qxphttp {

// One request on its way through the server. Used by the connection's thread only.
struct Server::Exchange {
    Request request;
    size_t max_body = 0;
    size_t discarded = 0;             // body bytes that came after the request was refused
    std::optional<Response> refusal;  // decided before the body was complete
    bool refuse_now = false;          // a refusal need not wait for the body
};

namespace {

int DescriptorOf(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

std::vector<std::string_view> HeaderValues(MHD_Connection* connection, std::string_view name) {
    struct Wanted {
        std::string_view name;
        std::vector<std::string_view> values;
    } wanted{name, {}};
    MHD_get_connection_values_n(
        connection, MHD_HEADER_KIND,
        [](void* context, MHD_ValueKind /*kind*/, const char* key, size_t key_size, const char* value,
           size_t value_size) {
            auto* const search = static_cast<Wanted*>(context);
            if (key_size == search->name.size() && strncasecmp(key, search->name.data(), key_size) == 0) {
                search->values.emplace_back(value != nullptr ? value : "", value_size);
            }
            return MHD_YES;
        },
        &wanted);
    return wanted.values;
}

// How a body comes, as the head says.
struct BodyFrame {
    uint64_t length = 0;              // as declared; 0 when it comes in chunks
    std::optional<Response> refusal;  // nobody knows where this request ends
};

Response Unframed(int status, const char* detail) {
    Response response = Problem(status, detail);
    response.headers.emplace_back(MHD_HTTP_HEADER_CONNECTION, "close");
    return response;
}

// Stricter than the server library, which takes the first of two lengths and waits for ever for the end of a coding
// that it does not know (RFC 9112 sections 6.1 and 6.3).
BodyFrame FrameOf(MHD_Connection* connection) {
    const auto lengths = HeaderValues(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    const auto codings = HeaderValues(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING);
    if (lengths.size() > 1 || (!lengths.empty() && !codings.empty())) {
        return {0, Unframed(400, "The length of the body is given twice.")};
    }
    if (codings.size() > 1 ||
        (!codings.empty() && (codings[0].size() != 7 || strncasecmp(codings[0].data(), "chunked", 7) != 0))) {
        return {0, Unframed(501, "The only transfer coding that is understood is chunked.")};
    }
    BodyFrame frame;
    if (!lengths.empty()) {
        const std::optional<uint64_t> length = qxpbase::WholeNumber(lengths[0]);
        if (!length.has_value()) {
            return {0, Unframed(400, "Content-Length must be a whole number.")};
        }
        frame.length = *length;
    }
    return frame;
}

// How much of a refused body is read only to be thrown away. A client that is cut off while it is still sending may
// never see the answer, so a refusal waits for the end of the body, up to this size.
size_t MaxDrainedBytes(size_t max_body) {
    return 2 * max_body;
}

Response TooLarge(size_t limit) {
    return Problem(413, fmt::format("The body is larger than the {} bytes that this path takes.", limit));
}

// Null when there is no memory for it.
MHD_Response* MakeMessage(Body body) {
    auto owned = std::make_unique<Body>(std::move(body));
    std::vector<MHD_IoVec> parts;
    for (const std::string& piece : owned->Pieces()) {
        parts.push_back({piece.data(), piece.size()});
    }
    MHD_Response* const message = MHD_create_response_from_iovec(
        parts.data(), static_cast<unsigned int>(parts.size()), [](void* pieces) { delete static_cast<Body*>(pieces); },
        owned.get());
    if (message != nullptr) {
        [[maybe_unused]] Body* const given = owned.release();
    }
    return message;
}

// A whole answer at once, for a connection of which nothing more is wanted. Small: it never waits for the client.
void SendAndShut(int descriptor, const Response& response) {
    const auto pieces = response.body.Pieces();
    const std::string body = fmt::format("{}", fmt::join(pieces.begin(), pieces.end(), ""));
    std::string text = fmt::format(
        "HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nConnection: close\r\n", response.status,
        MHD_get_reason_phrase_for(static_cast<unsigned int>(response.status)), response.content_type, body.size());
    for (const auto& [name, value] : response.headers) {
        text += fmt::format("{}: {}\r\n", name, value);
    }
    text += "\r\n" + body;
    [[maybe_unused]] const ssize_t sent = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    shutdown(descriptor, SHUT_RDWR);
}

MHD_Result Queue(MHD_Connection* connection, Response response) {
    MHD_Response* const message = MakeMessage(std::move(response.body));
    if (message == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(message, MHD_HTTP_HEADER_CONTENT_TYPE, response.content_type.c_str());
    for (const auto& [name, value] : response.headers) {
        MHD_add_response_header(message, name.c_str(), value.c_str());
    }
    const MHD_Result result = MHD_queue_response(connection, static_cast<unsigned int>(response.status), message);
    MHD_destroy_response(message);
    return result;
}

}  // namespace

struct Server::Callbacks {
    static MHD_Result OnRequest(void* server, MHD_Connection* connection, const char* path, const char* method,
                                const char* /*version*/, const char* data, size_t* size, void** state) {
        auto* const self = static_cast<Server*>(server);
        try {
            if (*state == nullptr) {
                auto* const exchange = self->Begin(connection, path, method);
                *state = exchange;
                return exchange->refusal.has_value() && exchange->refuse_now
                           ? Queue(connection, std::move(*exchange->refusal))
                           : MHD_YES;
            }
            auto& exchange = *static_cast<Exchange*>(*state);
            if (*size != 0) {
                const bool go_on = self->ReceiveBody(exchange, data, std::exchange(*size, 0));
                return go_on ? MHD_YES : MHD_NO;
            }
            return Queue(connection, self->Answer(connection, exchange));
        } catch (const std::exception& error) {
            self->log_(Severity::kError, fmt::format("a connection was closed: {}", error.what()));
            return MHD_NO;
        }
    }

    static void OnEnd(void* server, MHD_Connection* connection, void** state, MHD_RequestTerminationCode /*why*/) {
        if (*state != nullptr) {
            static_cast<Server*>(server)->End(connection, static_cast<Exchange*>(*state));
            *state = nullptr;
        }
    }

    static void OnConnection(void* server, MHD_Connection* connection, void** /*state*/,
                             MHD_ConnectionNotificationCode what) {
        auto& self = *static_cast<Server*>(server);
        const int descriptor = DescriptorOf(connection);
        if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
            return self.limiter_.Forget(descriptor);
        }
        try {
            if (!self.limiter_.Admit(descriptor, qxpbase::UserOf(descriptor))) {
                self.Refuse(descriptor, 503, "Too many connections of this user, or of all: come again later.");
            }
        } catch (const std::exception& error) {
            self.log_(Severity::kError, fmt::format("a connection was closed: {}", error.what()));
            shutdown(descriptor, SHUT_RDWR);
        }
    }

    // The first that is heard of a request, on its connection's thread.
    static void* OnTarget(void* /*server*/, const char* /*target*/, MHD_Connection* connection) {
        current_descriptor = DescriptorOf(connection);
        return nullptr;
    }

    static MHD_Result OnQueryParameter(void* query, MHD_ValueKind /*kind*/, const char* key, size_t key_size,
                                       const char* value, size_t value_size) {
        static_cast<decltype(Request::query)*>(query)->emplace_back(
            std::string(key, key_size), value != nullptr ? std::string(value, value_size) : std::string());
        return MHD_YES;
    }

    // A path is a C string here: a NUL in it becomes a byte that no name has, so that it finds nothing.
    static size_t Unescape(void* /*unused*/, MHD_Connection* /*connection*/, char* text) {
        const size_t size = MHD_http_unescape(text);
        std::replace(text, text + size, '\0', '\xff');
        return size;
    }

    static void OnLog(void* server, const char* format, va_list arguments) __attribute__((format(printf, 2, 0))) {
        const auto& self = *static_cast<Server*>(server);
        if (std::string_view(format).starts_with(kOwnAnswer) && current_descriptor >= 0) {
            self.Refuse(current_descriptor, static_cast<int>(va_arg(arguments, unsigned int)),
                        "The request is malformed.");
            return;
        }
        std::array<char, 512> text{};
        vsnprintf(text.data(), text.size(), format, arguments);
        text[std::strcspn(text.data(), "\n")] = '\0';
        self.log_(Severity::kWarning, fmt::format("http: {}", text.data()));
    }

private:
    // How the library announces that it is about to answer a request by itself, because it cannot be parsed. It answers
    // in HTML, and a wrong length twice in one; so the answer is given here, and its own finds the connection shut.
    static constexpr std::string_view kOwnAnswer = "Error processing request (HTTP response code is %u";

    static thread_local int current_descriptor;  // of the connection whose request this thread is reading
};

thread_local int Server::Callbacks::current_descriptor = -1;

Server::Server(UnixListener& listener, Handler& handler, LogSink log, const Limits& limits)
    : listener_(listener),
      handler_(handler),
      log_(std::move(log)),
      limits_(limits),
      limiter_(limits, log_),
      watch_([this] { limiter_.EndOverdue(); }) {
    pthread_setname_np(watch_.native_handle(), "qxphttptimes");
    constexpr unsigned int kSpare = 64;  // connections that are being refused or closed
    // The server library suppresses SIGPIPE on its own threads and makes every descriptor close-on-exec.
    daemon_ = MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL |
                                   MHD_USE_ITC | MHD_USE_ERROR_LOG,
                               0, nullptr, nullptr, &Callbacks::OnRequest, this,     //
                               MHD_OPTION_EXTERNAL_LOGGER, &Callbacks::OnLog, this,  // first: set-up errors count
                               MHD_OPTION_LISTEN_SOCKET, listener_.Release(),        //
                               MHD_OPTION_CONNECTION_LIMIT, 2 * limits_.connections + kSpare,                   //
                               MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(limits_.idle.count()),  //
                               MHD_OPTION_UNESCAPE_CALLBACK, &Callbacks::Unescape, nullptr,                     //
                               MHD_OPTION_URI_LOG_CALLBACK, &Callbacks::OnTarget, nullptr,                      //
                               MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::OnConnection, this,                    //
                               MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::OnEnd, this,                            //
                               MHD_OPTION_END);
    if (daemon_ == nullptr) {
        EndWatch();
        throw qxpbase::StartupError(
            fmt::format("The HTTP server cannot be started on {}: the log says why.", listener_.Path().string()));
    }
}

Server::~Server() {
    Stop();
}

void Server::Stop() {
    if (daemon_ == nullptr) {
        return;
    }
    listener_.RemoveName();
    const qxpbase::UniqueFd listening(MHD_quiesce_daemon(daemon_));  // still polled until the daemon has been stopped
    limiter_.AwaitRequests(limits_.drain);
    // Without any connection: the library follows a null pointer when it is stopped while it answers a wrong length.
    limiter_.ShutAll(limits_.drain);
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
    EndWatch();
}

// Answers in place of the server library, which then finds the connection shut.
void Server::Refuse(int descriptor, int status, const char* detail) const {
    try {
        SendAndShut(descriptor, Problem(status, detail));
    } catch (const std::exception& error) {
        log_(Severity::kWarning, fmt::format("http: {}", error.what()));
        shutdown(descriptor, SHUT_RDWR);
    }
}

void Server::EndWatch() {
    limiter_.End();
    watch_.join();
}

Server::Exchange* Server::Begin(MHD_Connection* connection, const char* path, const char* method) {
    auto exchange = std::make_unique<Exchange>();
    Request& request = exchange->request;
    request.method = method;
    request.path = path;
    const int descriptor = DescriptorOf(connection);
    request.peer = qxpbase::PeerOf(descriptor);
    MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, &Callbacks::OnQueryParameter, &request.query);
    exchange->max_body = handler_.MaxBodyBytes(request);
    BodyFrame frame = FrameOf(connection);
    exchange->refuse_now = frame.refusal.has_value() || frame.length > MaxDrainedBytes(exchange->max_body) ||
                           MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_EXPECT) != nullptr;
    if (frame.refusal.has_value()) {
        exchange->refusal = std::move(frame.refusal);
    } else if (frame.length > exchange->max_body) {
        exchange->refusal = TooLarge(exchange->max_body);
    } else {
        request.body.reserve(frame.length);
    }
    limiter_.Begin(descriptor, ConnectionLimiter::Step::kBody);
    if (!limiter_.AddRequest(request.peer.uid) && !exchange->refusal.has_value()) {
        exchange->refusal = Problem(503, "Too many requests at once: send this one again later.");
    }
    return exchange.release();
}

// False ends the connection.
bool Server::ReceiveBody(Exchange& exchange, const char* data, size_t size) {
    std::string& body = exchange.request.body;
    if (!exchange.refusal.has_value()) {
        if (size > exchange.max_body - body.size()) {
            exchange.refusal = TooLarge(exchange.max_body);
        } else if (!limiter_.AddBody(exchange.request.peer.uid, size)) {
            exchange.refusal = Problem(503, "Too many large requests at once: send this one again later.");
        } else {
            body.append(data, size);
            return true;
        }
        limiter_.RemoveBody(exchange.request.peer.uid, body.size());
        std::string().swap(body);
    }
    exchange.discarded += size;
    return exchange.discarded <= MaxDrainedBytes(exchange.max_body);
}

Response Server::Answer(MHD_Connection* connection, Exchange& exchange) {
    if (exchange.refusal.has_value()) {
        return std::move(*exchange.refusal);
    }
    // No time limit while the handler works: it may wait for news for as long as the client asked.
    const int descriptor = DescriptorOf(connection);
    limiter_.Begin(descriptor, ConnectionLimiter::Step::kAnswer);
    MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, 0U);
    const uid_t user = exchange.request.peer.uid;
    const size_t body_bytes = exchange.request.body.size();
    Response response;
    try {
        response = handler_.Handle(std::move(exchange.request));
    } catch (const std::exception& error) {
        log_(Severity::kError, fmt::format("a request failed: {}", error.what()));
        response = Problem(500, "The request could not be handled; the log of the service says why.");
    }
    exchange.request.body = {};
    limiter_.RemoveBody(user, body_bytes);
    limiter_.Begin(descriptor, ConnectionLimiter::Step::kSending);
    MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT,
                              static_cast<unsigned int>(limits_.idle.count()));
    return response;
}

void Server::End(MHD_Connection* connection, Exchange* exchange) {
    const uid_t user = exchange->request.peer.uid;
    limiter_.RemoveBody(user, exchange->request.body.size());
    delete exchange;
    limiter_.Begin(DescriptorOf(connection), ConnectionLimiter::Step::kHead);
    limiter_.RemoveRequest(user);
}

}  // namespace qxphttp
