#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include "agent/http_message.h"
#include "agent/unix_listener.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace qxpagent {

struct HttpLimits {
    unsigned int requests = 64;             // read or handled at once; one more is answered with 503
    unsigned int connections = 128;         // idle ones included; one more is closed without a word
    std::chrono::seconds idle{30};          // how long a client may take between two reads of its request
    std::chrono::milliseconds drain{2000};  // how long Stop lets answers that are under way go out
    size_t body_bytes = size_t{512} << 20;  // of all requests together
};

/// HTTP/1.1 over a Unix socket, one thread a connection.
class HttpServer {
public:
    /// Serves at once, on the listener's descriptor. Listener and handler must outlive it. Throws StartupError.
    HttpServer(UnixListener& listener, HttpHandler& handler, const HttpLimits& limits = {});
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Removes the socket's name, stops accepting, lets requests that are being handled end, and closes every
    /// connection. Waits for as long as the handler does: wake its waits first. A second call does nothing.
    void Stop();

private:
    struct Exchange;
    struct Callbacks;  // the server library's C interface to this class

    Exchange* Begin(MHD_Connection* connection, const char* path, const char* method);
    bool TakeBody(Exchange& exchange, const char* data, size_t size);
    HttpResponse Answer(MHD_Connection* connection, Exchange& exchange);
    void End(Exchange* exchange);

    // Constant after construction.
    UnixListener& listener_;
    HttpHandler& handler_;
    const HttpLimits limits_;
    MHD_Daemon* daemon_ = nullptr;  // null after Stop

    std::atomic<size_t> body_bytes_{0};

    std::mutex mutex_;
    std::condition_variable ended_;
    unsigned int exchanges_ = 0;  // guarded by mutex_
};

}  // namespace qxpagent
