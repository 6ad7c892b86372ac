#include "agent/http_server.h"

#include <microhttpd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/log.h"
#include "agent/peer.h"
#include "agent/startup_error.h"
#include "agent/unique_fd.h"

namespace qxpagent {

// One request on its way through the server. Used by the connection's thread only.
struct HttpServer::Exchange {
    HttpRequest request;
    size_t max_body = 0;
    size_t discarded = 0;                 // body bytes that came after the request was refused
    std::optional<HttpResponse> refusal;  // decided before the body was complete
    bool refuse_now = false;              // a refusal need not wait for the body
};

namespace {

size_t DeclaredLength(MHD_Connection* connection) {
    const char* const text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    uint64_t length = 0;
    if (text != nullptr && std::from_chars(text, text + std::strlen(text), length).ec != std::errc()) {
        return SIZE_MAX;
    }
    return length;
}

// How much of a body is read only to be thrown away. A client that is cut off while it is still sending may never see
// the answer, so a refusal waits for the body, but not for any length of it.
size_t Patience(size_t max_body) {
    return 2 * max_body;
}

HttpResponse TooLarge(size_t limit) {
    return Problem(413, "The body is larger than the " + std::to_string(limit) + " bytes that this path takes.");
}

// Null when there is no memory for it.
MHD_Response* MakeMessage(HttpBody body) {
    auto owned = std::make_unique<HttpBody>(std::move(body));
    std::vector<MHD_IoVec> parts;
    for (const std::string& piece : owned->Pieces()) {
        parts.push_back({piece.data(), piece.size()});
    }
    MHD_Response* const message = MHD_create_response_from_iovec(
        parts.data(), static_cast<unsigned int>(parts.size()),
        [](void* pieces) { delete static_cast<HttpBody*>(pieces); }, owned.get());
    if (message != nullptr) {
        [[maybe_unused]] HttpBody* const given = owned.release();
    }
    return message;
}

MHD_Result Queue(MHD_Connection* connection, HttpResponse response) {
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

struct HttpServer::Callbacks {
    static MHD_Result OnRequest(void* server, MHD_Connection* connection, const char* path, const char* method,
                                const char* /*version*/, const char* data, size_t* size, void** state) {
        auto* const self = static_cast<HttpServer*>(server);
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
                const bool go_on = self->TakeBody(exchange, data, std::exchange(*size, 0));
                return go_on ? MHD_YES : MHD_NO;
            }
            return Queue(connection, self->Answer(connection, exchange));
        } catch (const std::exception& error) {
            QXPAGENT_LOG(kLogError, "a connection was closed: %s", error.what());
            return MHD_NO;
        }
    }

    static void OnEnd(void* server, MHD_Connection* /*connection*/, void** state, MHD_RequestTerminationCode /*why*/) {
        if (*state != nullptr) {
            static_cast<HttpServer*>(server)->End(static_cast<Exchange*>(*state));
            *state = nullptr;
        }
    }

    static MHD_Result OnQueryParameter(void* query, MHD_ValueKind /*kind*/, const char* key, size_t key_size,
                                       const char* value, size_t value_size) {
        static_cast<decltype(HttpRequest::query)*>(query)->emplace_back(
            std::string(key, key_size), value != nullptr ? std::string(value, value_size) : std::string());
        return MHD_YES;
    }

    // A path is a C string here: a NUL in it becomes a byte that no name has, so that it finds nothing.
    static size_t Unescape(void* /*unused*/, MHD_Connection* /*connection*/, char* text) {
        const size_t size = MHD_http_unescape(text);
        std::replace(text, text + size, '\0', '\xff');
        return size;
    }

    static void OnLog(void* /*unused*/, const char* format, va_list arguments) __attribute__((format(printf, 2, 0))) {
        std::array<char, 512> text{};
        vsnprintf(text.data(), text.size(), format, arguments);
        text[std::strcspn(text.data(), "\n")] = '\0';
        QXPAGENT_LOG(kLogWarn, "http: %s", text.data());
    }
};

HttpServer::HttpServer(UnixListener& listener, HttpHandler& handler, const HttpLimits& limits)
    : listener_(listener), handler_(handler), limits_(limits) {
    // The server library suppresses SIGPIPE on its own threads and makes every descriptor close-on-exec.
    daemon_ = MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL |
                                   MHD_USE_ITC | MHD_USE_ERROR_LOG,
                               0, nullptr, nullptr, &Callbacks::OnRequest, this,        //
                               MHD_OPTION_EXTERNAL_LOGGER, &Callbacks::OnLog, nullptr,  // first: set-up errors count
                               MHD_OPTION_LISTEN_SOCKET, listener_.Release(),           //
                               MHD_OPTION_CONNECTION_LIMIT, limits_.connections,        //
                               MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(limits_.idle.count()),  //
                               MHD_OPTION_UNESCAPE_CALLBACK, &Callbacks::Unescape, nullptr,                     //
                               MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::OnEnd, this,                            //
                               MHD_OPTION_END);
    if (daemon_ == nullptr) {
        throw StartupError("The HTTP server cannot be started on " + listener_.Path().string() + ": the log says why.");
    }
}

HttpServer::~HttpServer() {
    Stop();
}

void HttpServer::Stop() {
    if (daemon_ == nullptr) {
        return;
    }
    listener_.RemoveName();
    const UniqueFd listening(MHD_quiesce_daemon(daemon_));  // still polled until the daemon has been stopped
    {
        std::unique_lock lock(mutex_);
        ended_.wait_for(lock, limits_.drain, [this] { return exchanges_ == 0; });
    }
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

HttpServer::Exchange* HttpServer::Begin(MHD_Connection* connection, const char* path, const char* method) {
    auto exchange = std::make_unique<Exchange>();
    HttpRequest& request = exchange->request;
    request.method = method;
    request.path = path;
    request.peer = PeerOf(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd);
    MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, &Callbacks::OnQueryParameter, &request.query);
    exchange->max_body = handler_.MaxBodyBytes(request);
    const size_t length = DeclaredLength(connection);
    exchange->refuse_now = length > Patience(exchange->max_body) ||
                           MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_EXPECT) != nullptr;
    if (length > exchange->max_body) {
        exchange->refusal = TooLarge(exchange->max_body);
    } else {
        request.body.reserve(length);
    }
    std::lock_guard lock(mutex_);
    if (++exchanges_ > limits_.requests) {
        exchange->refusal = Problem(503, "Too many requests at once: send this one again later.");
    }
    return exchange.release();
}

// False ends the connection.
bool HttpServer::TakeBody(Exchange& exchange, const char* data, size_t size) {
    std::string& body = exchange.request.body;
    if (!exchange.refusal.has_value()) {
        if (size > exchange.max_body - body.size()) {
            exchange.refusal = TooLarge(exchange.max_body);
        } else if (body_bytes_.fetch_add(size) + size > limits_.body_bytes) {
            body_bytes_ -= size;
            exchange.refusal = Problem(503, "Too many large requests at once: send this one again later.");
        } else {
            body.append(data, size);
            return true;
        }
        body_bytes_ -= body.size();
        std::string().swap(body);
    }
    exchange.discarded += size;
    return exchange.discarded <= Patience(exchange.max_body);
}

HttpResponse HttpServer::Answer(MHD_Connection* connection, Exchange& exchange) {
    if (exchange.refusal.has_value()) {
        return std::move(*exchange.refusal);
    }
    // The idle time is for clients; an answer may take as long as it takes.
    MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, 0U);
    const size_t body_bytes = exchange.request.body.size();
    HttpResponse response;
    try {
        response = handler_.Handle(std::move(exchange.request));
    } catch (const std::exception& error) {
        QXPAGENT_LOG(kLogError, "a request failed: %s", error.what());
        response = Problem(500, "The agent could not handle the request; its log says why.");
    }
    exchange.request = {};
    body_bytes_ -= body_bytes;
    MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT,
                              static_cast<unsigned int>(limits_.idle.count()));
    return response;
}

void HttpServer::End(Exchange* exchange) {
    body_bytes_ -= exchange->request.body.size();
    delete exchange;
    std::lock_guard lock(mutex_);
    --exchanges_;
    ended_.notify_all();
}

}  // namespace qxpagent
