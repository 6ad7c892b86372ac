#include "tests/plugin/scripted_endpoint.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

std::string Bytes(const unsigned char* data, size_t length) {
    return data ? std::string(reinterpret_cast<const char*>(data), length) : std::string();
}

}  // namespace

void ScriptedEndpoint::Record(BusCall call) {
    const std::lock_guard guard(lock_);
    calls_.push_back(std::move(call));
    changed_.notify_all();
}

std::vector<BusCall> ScriptedEndpoint::Calls(const std::string& operation) const {
    const std::lock_guard guard(lock_);
    std::vector<BusCall> calls;
    std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(calls),
                 [&](const BusCall& call) { return operation.empty() || call.operation == operation; });
    return calls;
}

void ScriptedEndpoint::Forget() {
    const std::lock_guard guard(lock_);
    calls_ = std::vector<BusCall>();  // gives up the memory too
}

bool ScriptedEndpoint::WaitForCalls(const std::string& operation, size_t count, std::chrono::milliseconds deadline) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, deadline, [&] {
        return static_cast<size_t>(std::count_if(calls_.begin(), calls_.end(), [&](const BusCall& call) {
                   return call.operation == operation;
               })) >= count;
    });
}

bool ScriptedEndpoint::Deliver(long type, const GUID& sender, const std::string& body, void* token) {
    return DeliverAsync(type, sender, body, token).get();
}

std::future<bool> ScriptedEndpoint::DeliverAsync(long type, const GUID& sender, const std::string& body, void* token) {
    return std::async(std::launch::async, [=, this] {
        Registration registration{};
        {
            const std::lock_guard guard(lock_);
            const auto entry = registrations_.find(type);
            if (entry == registrations_.end()) {
                return false;
            }
            registration = entry->second;
            in_flight_.insert(type);
        }
        // A buffer of exactly the body's size, so that reading on is an error that a sanitizer sees.
        const std::unique_ptr<unsigned char[]> data(body.empty() ? nullptr : new unsigned char[body.size()]);
        if (data) {
            memcpy(data.get(), body.data(), body.size());
        }
        registration.sink->ReceiveCallback(sender, type, data.get(), static_cast<unsigned int>(body.size()), token,
                                           registration.context);
        const std::lock_guard guard(lock_);
        in_flight_.erase(in_flight_.find(type));
        changed_.notify_all();
        return true;
    });
}

int ScriptedEndpoint::Initialize(const GUID& stComponentID) {
    Record({.operation = "Initialize", .component = stComponentID});
    return script.initialize;
}

int ScriptedEndpoint::Uninitialize() {
    Record({.operation = "Uninitialize"});
    return 0;
}

int ScriptedEndpoint::SendRequest(const GUID& stTarget, long i64MsgType, const unsigned char* pData,
                                  unsigned int uiLength, unsigned int* puiStatus, unsigned char** ppReply,
                                  unsigned int* puiReplyLength, unsigned int uiTimeOut) {
    Record({.operation = "SendRequest",
            .component = stTarget,
            .type = i64MsgType,
            .data = Bytes(pData, uiLength),
            .timeout = uiTimeOut});
    if (script.during_request) {
        script.during_request();
    }
    if (script.request != 0) {
        return script.request;
    }
    *puiStatus = script.request_status;
    if (!script.reply.empty()) {
        const std::lock_guard guard(lock_);
        auto bytes = std::make_unique<unsigned char[]>(script.reply.size());
        memcpy(bytes.get(), script.reply.data(), script.reply.size());
        *ppReply = bytes.get();
        *puiReplyLength = static_cast<unsigned int>(script.reply.size());
        replies_.emplace(bytes.get(), std::move(bytes));
    }
    return 0;
}

int ScriptedEndpoint::FreeReply(unsigned char* pReply) {
    Record({.operation = "FreeReply", .context = pReply});
    const std::lock_guard guard(lock_);
    if (replies_.erase(pReply) != 1) {
        throw std::logic_error("FreeReply of bytes that are not a reply");
    }
    return 0;
}

int ScriptedEndpoint::RegisterReceive(long i64MsgType, IMRReceiveComplete* pSink, void* pContext) {
    Record({.operation = "RegisterReceive", .type = i64MsgType, .sink = pSink, .context = pContext});
    const std::lock_guard guard(lock_);
    registrations_[i64MsgType] = {pSink, pContext};
    return 0;
}

int ScriptedEndpoint::UnregisterReceive(long i64MsgType) {
    Record({.operation = "UnregisterReceive", .type = i64MsgType});
    std::unique_lock guard(lock_);
    registrations_.erase(i64MsgType);
    changed_.wait(guard, [&] { return in_flight_.count(i64MsgType) == 0; });
    return 0;
}

int ScriptedEndpoint::Reply(int iStatus, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                            void* pReplyCtx) {
    Record({.operation = "Reply",
            .type = i64MsgType,
            .data = Bytes(pData, uiLength),
            .status = iStatus,
            .context = pReplyCtx});
    return 0;
}

int ScriptedEndpoint::SendAsync(const GUID& stTarget, long i64MsgType, const unsigned char* pData,
                                unsigned int uiLength, IMRSendComplete* pSink, void* pContext, unsigned long* pOut,
                                unsigned int uiTimeOut) {
    Record({.operation = "SendAsync",
            .component = stTarget,
            .type = i64MsgType,
            .data = Bytes(pData, uiLength),
            .timeout = uiTimeOut,
            .sink = pSink,
            .context = pContext});
    if (script.during_send) {
        script.during_send();
    }
    if (pOut) {
        *pOut = 1;
    }
    if (script.send == 0 && pSink) {
        pSink->SendCallback(0, i64MsgType, nullptr, 0, 1, pContext);
    }
    return script.send;
}
