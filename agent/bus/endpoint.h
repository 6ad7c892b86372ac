#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "agent/bus/message_bus.h"
#include "qxhost/bus.h"

namespace qxpagent {

/// The bus as a plugin sees it: one component's connection, in the binary interface of the host SDK. Results are
/// BusStatus numbers. The bus must outlive it; destroying it detaches it and releases the replies not yet given back.
class Endpoint final : public IXBusMREndPoint4 {
public:
    explicit Endpoint(MessageBus& bus) : bus_(bus) {}
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

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
    std::optional<GUID> Id() const;
    unsigned char* KeepReply(const std::string& bytes);

    MessageBus& bus_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::optional<GUID> id_;  // set while attached
    std::map<unsigned char*, std::unique_ptr<unsigned char[]>> replies_;
    unsigned long last_number_ = 0;
};

}  // namespace qxpagent
