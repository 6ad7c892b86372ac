#pragma once

#include <atomic>
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

    int Initialize(const GUID& component_id) override;
    int Uninitialize() override;
    int SendRequest(const GUID& target, long message_type, const unsigned char* data, unsigned int length,
                    unsigned int* status_out, unsigned char** reply_out, unsigned int* reply_length_out,
                    unsigned int timeout_ms) override;
    int FreeReply(unsigned char* reply_bytes) override;  // required for each reply that is not null
    int RegisterReceive(long message_type, IMRReceiveComplete* sink, void* context) override;
    int UnregisterReceive(long message_type) override;
    int Reply(int status, long message_type, const unsigned char* data, unsigned int length,
              void* reply_context) override;
    int SendAsync(const GUID& target, long message_type, const unsigned char* data, unsigned int length,
                  IMRSendComplete* sink, void* context, unsigned long* number_out, unsigned int timeout_ms) override;

private:
    std::optional<GUID> Id() const;
    unsigned char* KeepReply(const std::string& bytes);
    template <typename Call>
    int AsComponent(const Call& call) const noexcept;

    MessageBus& bus_;
    std::atomic<unsigned long> last_number_{0};  // of a posted message

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::optional<GUID> id_;  // set while attached
    // A reply is its receiver's until FreeReply. Kept by address, so that a second FreeReply frees nothing twice, and
    // what a plugin forgets is freed with this object.
    std::map<unsigned char*, std::unique_ptr<unsigned char[]>> replies_;
};

}  // namespace qxpagent
