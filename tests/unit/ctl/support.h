#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ctl/commands/commands.h"
#include "ctl/terminal/json.h"
#include "tests/support/temp_dir.h"

/// What a run of the tool left behind.
struct ToolResult {
    int code;
    std::string output;
    std::string remarks;

    friend std::ostream& operator<<(std::ostream& out, const ToolResult& result) {
        return out << result.code << "\noutput: " << result.output << "\nremarks: " << result.remarks;
    }
};

using TextMatcher = testing::Matcher<std::string>;

/// Matches a text that has every one of these parts.
template <typename... Parts>
TextMatcher Has(const Parts&... parts) {
    return testing::AllOf(testing::HasSubstr(parts)...);
}

/// Matches the result of a run.
inline testing::Matcher<ToolResult> Ends(int code, const TextMatcher& remarks = testing::_,
                                         const TextMatcher& output = testing::_) {
    return testing::AllOf(testing::Field(&ToolResult::code, code), testing::Field(&ToolResult::remarks, remarks),
                          testing::Field(&ToolResult::output, output));
}

inline std::string ReadFromStart(int descriptor) {
    std::string text(static_cast<size_t>(lseek(descriptor, 0, SEEK_END)), '\0');
    const ssize_t count = pread(descriptor, text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

inline int RunToolOn(int output, int remarks, const std::vector<std::string>& arguments) {
    std::vector<const char*> argv{"qxpctl"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    return qxpctl::Run(static_cast<int>(argv.size()), argv.data(), qxpctl::Console(output, remarks));
}

/// A file for the output of the tool: in memory, or one that takes nothing.
inline int MemoryFile() {
    return memfd_create("output", MFD_CLOEXEC);
}
inline int FullDisk() {
    return open("/dev/full", O_WRONLY | O_CLOEXEC);
}

/// Runs the tool in this process. Closes the file for its output.
inline ToolResult RunTool(const std::vector<std::string>& arguments, int output = MemoryFile()) {
    const int remarks = MemoryFile();
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
    if (openpty(&master, &terminal, nullptr, nullptr, nullptr) != 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    std::string text;
    std::thread reader([master, &text] {
        std::array<char, 4096> buffer{};
        for (ssize_t count = 0; (count = read(master, buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<size_t>(count));
        }
    });
    const int code = RunToolOn(terminal, terminal, arguments);
    close(terminal);
    reader.join();
    close(master);
    return {code, text, {}};
}

/// The exit code of a run that may write no file, nor its output, beyond so many bytes.
inline int RunToolWithFileLimit(rlim_t bytes, const std::vector<std::string>& arguments) {
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{bytes, limit.rlim_max};
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int code = RunToolOn(null, null, arguments);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, old_handler);
    close(null);
    return code;
}

/// The names in a directory in their order, hidden ones too: nothing half-made may be left.
inline std::vector<std::string> Names(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
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

    /// Takes the place of a socket that was left behind, and leaves its own.
    FakeAgent(const std::string& socket, Handler handler) : handler_(std::move(handler)) {
        unlink(socket.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener_, 8) != 0) {
            throw std::runtime_error("cannot listen on " + socket);
        }
        thread_ = std::thread([this] { Serve(); });
    }
    ~FakeAgent() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    static std::string Answer(int status, const std::string& body) {
        return "HTTP/1.1 " + std::to_string(status) +
               " X\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

private:
    void Serve() {
        for (int client = -1; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            if (const std::optional<std::string> answer = handler_(Read(client))) {
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
        std::array<char, 4096> buffer{};
        for (size_t size = std::string::npos; text.size() < size;) {
            const ssize_t count = recv(client, buffer.data(), buffer.size(), 0);
            if (count <= 0) {
                return {};
            }
            text.append(buffer.data(), static_cast<size_t>(count));
            const size_t end = text.find("\r\n\r\n");
            const size_t length = text.find("Content-Length: ");
            if (end != std::string::npos) {
                size = end + 4 + (length < end ? std::stoul(text.substr(length + 16)) : 0);
            }
        }
        Request request;
        std::istringstream(text) >> request.method >> request.target;
        request.body = text.substr(text.find("\r\n\r\n") + 4);
        return request;
    }

    const Handler handler_;
    int listener_ = -1;
    std::thread thread_;
};

namespace qxpctl {

// The matchers of nearly every test.
using testing::_;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

}  // namespace qxpctl
