#pragma once

#include <chrono>
#include <cstddef>
#include <thread>

#include "agent/api/http_door.h"
#include "agent/api/http_limits.h"
#include "agent/api/http_message.h"
#include "agent/api/unix_listener.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace qxpagent {

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

    void EndWatch();
    Exchange* Begin(MHD_Connection* connection, const char* path, const char* method);
    bool TakeBody(Exchange& exchange, const char* data, size_t size);
    HttpResponse Answer(MHD_Connection* connection, Exchange& exchange);
    void End(MHD_Connection* connection, Exchange* exchange);

    // Constant after construction.
    UnixListener& listener_;
    HttpHandler& handler_;
    const HttpLimits limits_;
    MHD_Daemon* daemon_ = nullptr;  // null after Stop

    HttpDoor door_;  // safe for any thread by itself
    std::thread watch_;
};

}  // namespace qxpagent
