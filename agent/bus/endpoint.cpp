#include "agent/bus/endpoint.h"

#include <algorithm>
#include <new>
#include <utility>

namespace qxpagent {

namespace {

// Nothing may be thrown across the binary interface; what is left to be thrown here is a lack of memory.
template <typename Call>
int NoThrow(const Call& call) noexcept {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return kBusQueueFull;
    }
}

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

int Endpoint::Initialize(const GUID& component_id) {
    return NoThrow([&]() -> int {
        std::lock_guard lock(mutex_);
        if (id_.has_value()) {
            return kBusNameTaken;
        }
        const int status = bus_.Attach(component_id);
        if (status == kBusOk) {
            id_ = component_id;
        }
        return status;
    });
}

int Endpoint::Uninitialize() {
    const std::optional<GUID> id = Id();
    if (!id.has_value()) {
        return kBusNotAttached;
    }
    const int status = bus_.Detach(*id);  // deliveries that are still in flight may reply meanwhile
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
    return NoThrow([&]() -> int {
        const std::optional<GUID> id = Id();
        if (!id.has_value()) {
            return kBusNotAttached;
        }
        BusAnswer answer;
        const int status = bus_.Request(*id, target, message_type, ToBytes(data, length),
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
    return NoThrow([&]() -> int {
        const std::optional<GUID> id = Id();
        return id.has_value() ? bus_.Register(*id, message_type, sink, context) : kBusNotAttached;
    });
}

int Endpoint::UnregisterReceive(long message_type) {
    const std::optional<GUID> id = Id();
    return id.has_value() ? bus_.Unregister(*id, message_type) : kBusNotAttached;
}

int Endpoint::Reply(int status, long /*message_type*/, const unsigned char* data, unsigned int length,
                    void* reply_context) {
    if (reply_context == nullptr || (data == nullptr && length != 0)) {
        return kBusBadArgument;
    }
    return NoThrow([&]() -> int {
        const std::optional<GUID> id = Id();
        return id.has_value() ? bus_.Reply(*id, reply_context, {status, ToBytes(data, length)}) : kBusNotAttached;
    });
}

int Endpoint::SendAsync(const GUID& target, long message_type, const unsigned char* data, unsigned int length,
                        IMRSendComplete* sink, void* context, unsigned long* number_out, unsigned int timeout_ms) {
    if (data == nullptr && length != 0) {
        return kBusBadArgument;
    }
    return NoThrow([&]() -> int {
        std::optional<GUID> id;
        BusCompletion completion{sink, context, 0};
        {
            std::lock_guard lock(mutex_);
            id = id_;
            completion.number = ++last_number_;
        }
        if (!id.has_value()) {
            return kBusNotAttached;
        }
        if (number_out != nullptr) {
            *number_out = completion.number;  // before the sink can be told
        }
        const std::string_view body{reinterpret_cast<const char*>(data), length};
        return bus_.Post(*id, target, message_type, body, completion, std::chrono::milliseconds(timeout_ms));
    });
}

}  // namespace qxpagent
