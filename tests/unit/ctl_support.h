#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ctl/command_line.h"
#include "ctl/json.h"
#include "tests/support/temp_dir.h"

/// What a run of the tool left behind.
struct ToolResult {
    int code;
    std::string output;
    std::string remarks;
};

inline std::string ReadFromStart(int descriptor) {
    std::string text(static_cast<size_t>(lseek(descriptor, 0, SEEK_END)), '\0');
    const ssize_t count = pread(descriptor, text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

inline int RunToolOn(int output, int remarks, const std::vector<std::string>& arguments) {
    std::vector<const char*> argv{"qxpctl"};
    for (const std::string& argument : arguments)
        argv.push_back(argument.c_str());
    return qxpctl::Run(static_cast<int>(argv.size()), argv.data(), qxpctl::Console(output, remarks));
}

/// Runs the tool in this process, with files for its output.
inline ToolResult RunTool(const std::vector<std::string>& arguments) {
    const int output = memfd_create("output", MFD_CLOEXEC);
    const int remarks = memfd_create("remarks", MFD_CLOEXEC);
    const int code = RunToolOn(output, remarks, arguments);
    ToolResult result{code, ReadFromStart(output), ReadFromStart(remarks)};
    close(output);
    close(remarks);
    return result;
}

/// The same on a terminal; both streams arrive as one text.
inline ToolResult RunToolOnTerminal(const std::vector<std::string>& arguments) {
    int master = -1;
    int terminal = -1;
    if (openpty(&master, &terminal, nullptr, nullptr, nullptr) != 0)
        throw std::runtime_error("no pseudo-terminal");
    std::string text;
    std::thread reader([master, &text] {
        std::array<char, 4096> buffer{};
        for (ssize_t count = 0; (count = read(master, buffer.data(), buffer.size())) > 0;)
            text.append(buffer.data(), static_cast<size_t>(count));
    });
    const int code = RunToolOn(terminal, terminal, arguments);
    close(terminal);
    reader.join();
    close(master);
    return {code, text, {}};
}

/// An HTTP server on a Unix socket that answers as a test says.
class FakeAgent {
public:
    struct Request {
        std::string method;
        std::string target;
        std::string body;
    };
    /// Returns the whole answer; nothing leaves the request open until the client gives up.
    using Handler = std::function<std::optional<std::string>(const Request&)>;

    FakeAgent(std::string socket, Handler handler) : socket_(std::move(socket)), handler_(std::move(handler)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, socket_.c_str(), sizeof(address.sun_path) - 1);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener_, 8) != 0)
            throw std::runtime_error("cannot listen on " + socket_);
        thread_ = std::thread([this] { Serve(); });
    }
    ~FakeAgent() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    const std::string& Socket() const { return socket_; }
    std::vector<Request> Requests() const {
        const std::lock_guard lock(lock_);
        return requests_;
    }

    static std::string Answer(int status, const std::string& body) {
        return "HTTP/1.1 " + std::to_string(status) +
               " X\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

private:
    void Serve() {
        for (int client = -1; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const Request request = Read(client);
            {
                const std::lock_guard lock(lock_);
                requests_.push_back(request);
            }
            const std::optional<std::string> answer = handler_(request);
            if (answer) {
                EXPECT_EQ(send(client, answer->data(), answer->size(), MSG_NOSIGNAL),
                          static_cast<ssize_t>(answer->size()));
            } else {
                Read(client);
            }
            close(client);
        }
    }

    // One request, or nothing when the client closes the connection.
    static Request Read(int client) {
        std::string text;
        size_t body = std::string::npos;
        size_t length = 0;
        std::array<char, 4096> buffer{};
        while (body == std::string::npos || text.size() < body + length) {
            const ssize_t count = recv(client, buffer.data(), buffer.size(), 0);
            if (count <= 0)
                return {};
            text.append(buffer.data(), static_cast<size_t>(count));
            if (const size_t end = text.find("\r\n\r\n"); body == std::string::npos && end != std::string::npos) {
                body = end + 4;
                const size_t header = text.find("Content-Length: ");
                length = header < end ? std::stoul(text.substr(header + 16)) : 0;
            }
        }
        const size_t first = text.find(' ');
        const size_t second = text.find(' ', first + 1);
        return {text.substr(0, first), text.substr(first + 1, second - first - 1), text.substr(body)};
    }

    const std::string socket_;
    const Handler handler_;
    int listener_ = -1;
    std::thread thread_;
    mutable std::mutex lock_;
    std::vector<Request> requests_;  // guarded by lock_
};
