#pragma once

#include <chrono>
#include <cstddef>
#include <thread>

#include "http/connection_limiter.h"
#include "http/message.h"
#include "http/unix_listener.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace qxphttp {

/// HTTP/1.1 over a Unix socket, one thread a connection. What is no request is answered with 400, 413 or 501, and what
/// is too much of one user with 503, without the handler. docs/decisions/010-access-and-configuration.md says why.
/// Construction, Stop and destruction belong to one thread.
class Server {
public:
    /// Serves at once, on the listener's descriptor, which becomes the server's. Listener and handler must outlive it.
    /// Throws qxpbase::StartupError when the server library cannot be started, std::system_error without a thread.
    Server(UnixListener& listener, Handler& handler, LogSink log, const Limits& limits = {});
    /// As Stop.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Removes the socket's name, stops accepting, gives answers that are under way Limits::drain to go out, and closes
    /// every connection. Then waits for as long as the handler does: wake its waits first. A second call does nothing.
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
