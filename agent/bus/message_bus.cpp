#include "agent/bus/message_bus.h"

#include <pthread.h>

#include <utility>

namespace qxpagent {

MessageBus::MessageBus(const BusLimits& limits) : limits_(limits) {
    try {
        expiry_thread_ = std::thread([this] { ExpireLoop(); });
        pthread_setname_np(expiry_thread_.native_handle(), "qxpbusexpiry");
        for (size_t i = 0; i < limits_.delivery_threads; ++i) {
            delivery_threads_.emplace_back([this] { DeliverLoop(); });
            pthread_setname_np(delivery_threads_.back().native_handle(), "qxpbus");
        }
    } catch (...) {
        Shutdown();
        throw;
    }
}

MessageBus::~MessageBus() {
    Shutdown();
}

int MessageBus::Attach(const GUID& component) {
    std::lock_guard lock(mutex_);
    if (stopping_) {
        return kBusShutDown;
    }
    return std::exchange(components_[component].attached, true) ? kBusNameTaken : kBusOk;
}

int MessageBus::Detach(const GUID& component) {
    std::unique_lock lock(mutex_);
    Component* const found = FindAttached(component);
    if (found == nullptr) {
        return kBusNotAttached;
    }
    found->attached = false;
    for (auto& [type, channel] : found->channels) {
        channel.receiver = {};
    }
    for (auto& [type, channel] : found->channels) {
        WaitUntilIdle(channel, lock);
    }
    return kBusOk;
}

int MessageBus::Register(const GUID& component, long type, IMRReceiveComplete* sink, void* context) {
    return sink == nullptr ? kBusBadArgument : AddReceiver(component, type, {sink, context, nullptr});
}

int MessageBus::RegisterDirect(const GUID& component, long type, DirectReceiver receiver) {
    return AddReceiver(component, type,
                       {nullptr, nullptr, std::make_shared<const DirectReceiver>(std::move(receiver))});
}

int MessageBus::AddReceiver(const GUID& component, long type, Receiver receiver) {
    std::lock_guard lock(mutex_);
    Component* const found = FindAttached(component);
    if (found == nullptr) {
        return kBusNotAttached;
    }
    Receiver& present = found->channels[type].receiver;
    if (present.IsSet()) {
        return kBusTypeTaken;
    }
    present = std::move(receiver);
    return kBusOk;
}

int MessageBus::Unregister(const GUID& component, long type) {
    std::unique_lock lock(mutex_);
    const auto found = components_.find(component);
    if (found == components_.end()) {
        return kBusNotAttached;
    }
    const auto entry = found->second.channels.find(type);
    if (entry == found->second.channels.end()) {
        return kBusNotRegistered;
    }
    Channel& channel = entry->second;
    const bool registered = channel.receiver.IsSet();
    channel.receiver = {};
    WaitUntilIdle(channel, lock);
    return registered ? kBusOk : kBusNotRegistered;
}

MessageBus::Component* MessageBus::FindAttached(const GUID& component) {
    const auto found = components_.find(component);
    return found != components_.end() && found->second.attached ? &found->second : nullptr;
}

MessageBus::Channel* MessageBus::FindChannel(const GUID& target, long type) {
    Component* const component = FindAttached(target);
    if (component == nullptr) {
        return nullptr;
    }
    const auto entry = component->channels.find(type);
    return entry != component->channels.end() && entry->second.receiver.IsSet() ? &entry->second : nullptr;
}

// Why the end of a registration waits: its owner destroys the sink next, and unloads the library that it is in.
void MessageBus::WaitUntilIdle(Channel& channel, std::unique_lock<std::mutex>& lock) {
    Delivery* const delivery = current_delivery;
    const bool within = delivery != nullptr && delivery->channel == &channel;
    if (within && !delivery->leaving) {
        delivery->leaving = true;
        ++channel.leaving;
        settled_.notify_all();
    }
    // Deliveries that unregister their own type at the same time would otherwise wait for each other.
    settled_.wait(lock, [&] { return channel.in_flight == (within ? channel.leaving : 0); });
}

int MessageBus::AdmissionStatus(const GUID& sender, size_t bytes) {
    if (stopping_) {
        return kBusShutDown;
    }
    if (FindAttached(sender) == nullptr) {
        return kBusNotAttached;
    }
    const bool full = queue_.size() + reserved_ >= limits_.queued_messages;
    return full || bytes > limits_.queued_bytes - queued_bytes_ ? kBusQueueFull : kBusOk;
}

int MessageBus::Enqueue(Message message) {
    if (const int refused = AdmissionStatus(message.sender, message.body.size())) {
        return refused;
    }
    // What needs memory comes first: it fails the sender here, and nothing at the delivery.
    std::list<Message> entry;
    entry.push_back(std::move(message));
    const Message& queued = entry.front();
    if (queued.exchange != nullptr) {
        queued.exchange->token = ++last_token_;
        exchanges_.emplace(queued.exchange->token, queued.exchange);
    }
    queued_bytes_ += queued.body.size();
    if (queued.deadline < armed_) {
        expiry_.notify_one();
    }
    queue_.splice(queue_.end(), entry);
    work_.notify_one();
    return kBusOk;
}

int MessageBus::Request(const GUID& sender, const GUID& target, long type, std::string body,
                        std::chrono::milliseconds timeout, BusAnswer& answer) {
    const Clock::time_point deadline = Clock::now() + timeout;
    const auto exchange = std::make_shared<Exchange>();
    std::unique_lock lock(mutex_);
    if (const int refused = Enqueue({sender, target, type, std::move(body), deadline, {}, exchange})) {
        return refused;
    }
    ++requests_waiting_;
    if (!exchange->changed.wait_until(lock, deadline, [&] { return exchange->done; })) {
        exchange->done = true;
        exchange->outcome = kBusTimedOut;  // the message, if still queued, expires at the same deadline
    }
    exchanges_.erase(exchange->token);
    --requests_waiting_;
    settled_.notify_all();
    if (exchange->outcome == kBusOk) {
        answer = std::move(exchange->answer);
    }
    return exchange->outcome;
}

int MessageBus::Post(const GUID& sender, const GUID& target, long type, std::string_view body,
                     const BusCompletion& completion, std::chrono::milliseconds timeout) {
    Message message{sender, target, type, {}, Clock::now() + timeout, completion, nullptr};
    message.exchange = completion.sink != nullptr ? std::make_shared<Exchange>() : nullptr;
    std::unique_lock lock(mutex_);
    if (Channel* const channel = FindChannel(target, type); channel != nullptr && channel->receiver.direct != nullptr) {
        return GiveDirectly(std::move(message), body, *channel, lock);
    }
    lock.unlock();
    message.body = body;  // not under the lock: it can be over a hundred MiB
    lock.lock();
    return Enqueue(std::move(message));
}

int MessageBus::Reply(const GUID& receiver, void* token, BusAnswer answer) {
    std::lock_guard lock(mutex_);
    const auto found = exchanges_.find(reinterpret_cast<uint64_t>(token));
    if (found == exchanges_.end() || !SameId(found->second->receiver, receiver)) {
        return kBusStaleToken;
    }
    Exchange& exchange = *found->second;
    exchange.answer = std::move(answer);
    exchange.done = true;
    exchange.changed.notify_one();
    exchanges_.erase(found);
    return kBusOk;
}

// The expiry thread ends last, so that no message that is queued waits beyond its deadline meanwhile.
void MessageBus::Shutdown() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        work_.notify_all();
    }
    for (std::thread& thread : delivery_threads_) {
        thread.join();
    }
    delivery_threads_.clear();
    {
        std::lock_guard lock(mutex_);
        expiry_stopping_ = true;
        expiry_.notify_all();
    }
    if (expiry_thread_.joinable()) {
        expiry_thread_.join();
    }
    std::unique_lock lock(mutex_);
    for (auto& [token, exchange] : exchanges_) {
        exchange->done = true;
        exchange->outcome = kBusShutDown;
        exchange->changed.notify_all();
    }
    exchanges_.clear();
    settled_.wait(lock, [this] { return requests_waiting_ == 0; });
}

}  // namespace qxpagent
