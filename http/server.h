#pragma once

#include <chrono>
#include <cstddef>
#include <thread>

#include "http/connection_limiter.h"
#include "http/limits.h"
#include "http/log_sink.h"
#include "http/message.h"
#include "http/unix_listener.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace qxphttp {

/// HTTP/1.1 over a Unix socket, one thread a connection.
class Server {
public:
    /// Serves at once, on the listener's descriptor. Listener and handler must outlive it. Throws StartupError.
    Server(UnixListener& listener, Handler& handler, LogSink log, const Limits& limits = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Removes the socket's name, stops accepting, lets requests that are being handled end, and closes every
    /// connection. Waits for as long as the handler does: wake its waits first. A second call does nothing.
    void Stop();

private:
    struct Exchange;
    struct Callbacks;  // the server library's C interface to this class

    void Refuse(int descriptor, int status, const char* detail) const;
    void EndWatch();
    Exchange* Begin(MHD_Connection* connection, const char* path, const char* method);
    bool ReceiveBody(Exchange& exchange, const char* data, size_t size);
    Response Answer(MHD_Connection* connection, Exchange& exchange);
    void End(MHD_Connection* connection, Exchange* exchange);

    // Constant after construction.
    UnixListener& listener_;
    Handler& handler_;
    const LogSink log_;
    const Limits limits_;
    MHD_Daemon* daemon_ = nullptr;  // null after Stop

    ConnectionLimiter limiter_;  // safe for any thread by itself
    std::thread watch_;
};

}  // namespace qxphttp
