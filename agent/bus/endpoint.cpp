#include "agent/bus/endpoint.h"

#include <algorithm>
#include <new>
#include <utility>

namespace qxpagent {

namespace {

std::string ToBytes(const unsigned char* data, unsigned int length) {
    return data == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(data), length);
}

}  // namespace

Endpoint::~Endpoint() {
    Endpoint::Uninitialize();
}

std::optional<GUID> Endpoint::Id() const {
    std::lock_guard lock(mutex_);
    return id_;
}

// Calls the bus in the name of this component. Nothing may be thrown across the binary interface; only a lack of memory
// can be.
template <typename Call>
int Endpoint::AsComponent(const Call& call) const noexcept {
    try {
        const std::optional<GUID> id = Id();
        return id.has_value() ? call(*id) : kBusNotAttached;
    } catch (const std::bad_alloc&) {
        return kBusQueueFull;
    }
}

int Endpoint::Initialize(const GUID& component_id) {
    try {
        std::lock_guard lock(mutex_);
        const int status = id_.has_value() ? kBusNameTaken : bus_.Attach(component_id);
        if (status == kBusOk) {
            id_ = component_id;
        }
        return status;
    } catch (const std::bad_alloc&) {
        return kBusQueueFull;
    }
}

int Endpoint::Uninitialize() {
    // Not under the lock: it waits for deliveries in flight, and they may reply meanwhile.
    const int status = AsComponent([&](const GUID& id) { return bus_.Detach(id); });
    if (status == kBusOk) {
        std::lock_guard lock(mutex_);
        id_.reset();
    }
    return status;
}

int Endpoint::SendRequest(const GUID& target, long message_type, const unsigned char* data, unsigned int length,
                          unsigned int* status_out, unsigned char** reply_out, unsigned int* reply_length_out,
                          unsigned int timeout_ms) {
    if (status_out == nullptr || reply_out == nullptr || reply_length_out == nullptr ||
        (data == nullptr && length != 0)) {
        return kBusBadArgument;
    }
    *reply_out = nullptr;
    *reply_length_out = 0;
    return AsComponent([&](const GUID& id) {
        BusAnswer answer;
        const int status = bus_.Request(id, target, message_type, ToBytes(data, length),
                                        std::chrono::milliseconds(timeout_ms), answer);
        if (status == kBusOk) {
            *reply_out = KeepReply(answer.bytes);
            *reply_length_out = static_cast<unsigned int>(answer.bytes.size());
            *status_out = static_cast<unsigned int>(answer.status);
        }
        return status;
    });
}

unsigned char* Endpoint::KeepReply(const std::string& bytes) {
    if (bytes.empty()) {
        return nullptr;
    }
    auto reply = std::make_unique<unsigned char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), reply.get());
    unsigned char* const address = reply.get();
    std::lock_guard lock(mutex_);
    replies_.emplace(address, std::move(reply));
    return address;
}

int Endpoint::FreeReply(unsigned char* reply_bytes) {
    std::lock_guard lock(mutex_);
    return replies_.erase(reply_bytes) == 1 ? kBusOk : kBusBadArgument;
}

int Endpoint::RegisterReceive(long message_type, IMRReceiveComplete* sink, void* context) {
    return AsComponent([&](const GUID& id) { return bus_.Register(id, message_type, sink, context); });
}

int Endpoint::UnregisterReceive(long message_type) {
    return AsComponent([&](const GUID& id) { return bus_.Unregister(id, message_type); });
}

int Endpoint::Reply(int status, long /*message_type*/, const unsigned char* data, unsigned int length,
                    void* reply_context) {
    if (reply_context == nullptr || (data == nullptr && length != 0)) {
        return kBusBadArgument;
    }
    return AsComponent([&](const GUID& id) { return bus_.Reply(id, reply_context, {status, ToBytes(data, length)}); });
}

int Endpoint::SendAsync(const GUID& target, long message_type, const unsigned char* data, unsigned int length,
                        IMRSendComplete* sink, void* context, unsigned long* number_out, unsigned int timeout_ms) {
    if (data == nullptr && length != 0) {
        return kBusBadArgument;
    }
    return AsComponent([&](const GUID& id) {
        const BusCompletion completion{sink, context, ++last_number_};
        if (number_out != nullptr) {
            *number_out = completion.number;  // before the sink can be told
        }
        const std::string_view body{reinterpret_cast<const char*>(data), length};
        return bus_.Post(id, target, message_type, body, completion, std::chrono::milliseconds(timeout_ms));
    });
}

}  // namespace qxpagent
