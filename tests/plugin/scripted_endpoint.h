#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "agent/bus/component_ids.h"
#include "qxhost/bus.h"
#include "tests/support/wait.h"

inline bool operator==(const GUID& a, const GUID& b) {
    return qxpagent::SameId(a, b);
}

/// The plugin's own component, and those it deals with.
inline constexpr GUID PLUGIN = qxpagent::ParseGuid("F87FC278-D443-4C25-95CB-58D6C48E9128");
inline constexpr GUID SERVER_DATA = qxpagent::ParseGuid("FAB922A8-736E-4CB5-A666-4FD849A3049A");
inline constexpr GUID AGENT_CONNECT = qxpagent::ParseGuid("ABC9A772-602C-45F4-9AAC-7096FD9BEDA4");
inline constexpr GUID MANAGER = qxpagent::ParseGuid("9946467F-0102-46E8-ACAC-B9EFE3CD68FD");

/// One call that the plugin made on the bus.
struct BusCall {
    std::string operation{};
    GUID component{};  ///< of Initialize, SendRequest and SendAsync
    long type = 0;
    std::string data{};             ///< of SendRequest, Reply and SendAsync
    unsigned int timeout = 0;       ///< in milliseconds
    int status = 0;                 ///< of Reply
    const void* sink = nullptr;     ///< of RegisterReceive and SendAsync
    const void* context = nullptr;  ///< of RegisterReceive and SendAsync; the token of Reply, the bytes of FreeReply
};

/// A bus with one component on it, the plugin: keeps every call with its arguments, answers as the test has scripted,
/// and delivers the test's messages on threads of its own. Keeps the host's promise that UnregisterReceive waits for
/// the deliveries in flight. Every operation may be called from any thread.
class ScriptedEndpoint final : public IXBusMREndPoint4 {
public:
    /// What the calls return. To be set while the plugin makes none.
    struct Script {
        int initialize = 0;
        int request = 0;
        unsigned int request_status = 0;
        std::string reply{};  ///< empty: no reply bytes
        int send = 0;
        std::function<void()> during_request{};
        std::function<void()> during_send{};
    };
    Script script;

    std::vector<BusCall> Calls(const std::string& operation = "") const;
    /// Forgets the calls so far.
    void Forget();
    /// Waits until an operation has been called count times; false when the deadline passes first.
    bool WaitForCalls(const std::string& operation, size_t count, std::chrono::milliseconds deadline = DEADLINE);

    /// Hands a message to the sink of its type on a thread of the bus and waits until it was handled. False when the
    /// type is not registered.
    bool Deliver(long type, const GUID& sender, const std::string& body, void* token = nullptr);
    /// The same without waiting; the future's end waits.
    std::future<bool> DeliverAsync(long type, const GUID& sender, const std::string& body, void* token = nullptr);

    int Initialize(const GUID& stComponentID) override;
    int Uninitialize() override;
    int SendRequest(const GUID& stTarget, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                    unsigned int* puiStatus, unsigned char** ppReply, unsigned int* puiReplyLength,
                    unsigned int uiTimeOut) override;
    int FreeReply(unsigned char* pReply) override;
    int RegisterReceive(long i64MsgType, IMRReceiveComplete* pSink, void* pContext) override;
    int UnregisterReceive(long i64MsgType) override;
    int Reply(int iStatus, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
              void* pReplyCtx) override;
    int SendAsync(const GUID& stTarget, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                  IMRSendComplete* pSink, void* pContext, unsigned long* pOut, unsigned int uiTimeOut) override;

private:
    struct Registration {
        IMRReceiveComplete* sink;
        void* context;
    };

    void Record(BusCall call);

    mutable std::mutex lock_;  // guards everything below
    std::condition_variable changed_;
    std::vector<BusCall> calls_;
    std::map<long, Registration> registrations_;
    std::multiset<long> in_flight_;
    std::map<unsigned char*, std::unique_ptr<unsigned char[]>> replies_;  // given out, not yet freed
};
