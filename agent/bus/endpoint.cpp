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

int Endpoint::Initialize(const GUID& stComponentID) {
    return NoThrow([&]() -> int {
        std::lock_guard lock(mutex_);
        if (id_.has_value()) {
            return kBusNameTaken;
        }
        const int status = bus_.Attach(stComponentID);
        if (status == kBusOk) {
            id_ = stComponentID;
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

int Endpoint::SendRequest(const GUID& stTarget, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                          unsigned int* puiStatus, unsigned char** ppReply, unsigned int* puiReplyLength,
                          unsigned int uiTimeOut) {
    if (puiStatus == nullptr || ppReply == nullptr || puiReplyLength == nullptr ||
        (pData == nullptr && uiLength != 0)) {
        return kBusBadArgument;
    }
    *ppReply = nullptr;
    *puiReplyLength = 0;
    return NoThrow([&]() -> int {
        const std::optional<GUID> id = Id();
        if (!id.has_value()) {
            return kBusNotAttached;
        }
        BusAnswer answer;
        const int status = bus_.Request(*id, stTarget, i64MsgType, ToBytes(pData, uiLength),
                                        std::chrono::milliseconds(uiTimeOut), answer);
        if (status == kBusOk) {
            *ppReply = KeepReply(answer.bytes);
            *puiReplyLength = static_cast<unsigned int>(answer.bytes.size());
            *puiStatus = static_cast<unsigned int>(answer.status);
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

int Endpoint::FreeReply(unsigned char* pReply) {
    std::lock_guard lock(mutex_);
    return replies_.erase(pReply) == 1 ? kBusOk : kBusBadArgument;
}

int Endpoint::RegisterReceive(long i64MsgType, IMRReceiveComplete* pSink, void* pContext) {
    return NoThrow([&]() -> int {
        const std::optional<GUID> id = Id();
        return id.has_value() ? bus_.Register(*id, i64MsgType, pSink, pContext) : kBusNotAttached;
    });
}

int Endpoint::UnregisterReceive(long i64MsgType) {
    const std::optional<GUID> id = Id();
    return id.has_value() ? bus_.Unregister(*id, i64MsgType) : kBusNotAttached;
}

int Endpoint::Reply(int iStatus, long /*i64MsgType*/, const unsigned char* pData, unsigned int uiLength,
                    void* pReplyCtx) {
    if (pReplyCtx == nullptr || (pData == nullptr && uiLength != 0)) {
        return kBusBadArgument;
    }
    return NoThrow([&]() -> int {
        const std::optional<GUID> id = Id();
        return id.has_value() ? bus_.Reply(*id, pReplyCtx, {iStatus, ToBytes(pData, uiLength)}) : kBusNotAttached;
    });
}

int Endpoint::SendAsync(const GUID& stTarget, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                        IMRSendComplete* pSink, void* pContext, unsigned long* pOut, unsigned int uiTimeOut) {
    if (pData == nullptr && uiLength != 0) {
        return kBusBadArgument;
    }
    return NoThrow([&]() -> int {
        std::optional<GUID> id;
        BusCompletion completion{pSink, pContext, 0};
        {
            std::lock_guard lock(mutex_);
            id = id_;
            completion.number = ++last_number_;
        }
        if (!id.has_value()) {
            return kBusNotAttached;
        }
        if (pOut != nullptr) {
            *pOut = completion.number;  // before the sink can be told
        }
        const std::string_view body{reinterpret_cast<const char*>(pData), uiLength};
        return bus_.Post(*id, stTarget, i64MsgType, body, completion, std::chrono::milliseconds(uiTimeOut));
    });
}

}  // namespace qxpagent
