// The part of the bus that calls into components: deliveries and completions, and what expires before its delivery.

#include <algorithm>
#include <exception>
#include <utility>

#include "agent/bus/message_bus.h"
#include "agent/log.h"

namespace qxpagent {

thread_local MessageBus::Delivery* MessageBus::current_delivery = nullptr;

namespace {

// Calls into a component. False when it threw.
template <typename Call>
bool Guarded(const char* what, long type, const Call& call) {
    try {
        call();
        return true;
    } catch (const std::exception& error) {
        QXPAGENT_LOG(kLogError, "a %s of message type %ld threw: %s", what, type, error.what());
    } catch (...) {
        QXPAGENT_LOG(kLogError, "a %s of message type %ld threw", what, type);
    }
    return false;
}

}  // namespace

// Calls a component without the lock: it may call the bus, and take its time. False when it threw.
template <typename Call>
bool MessageBus::CallReceiver(Channel& channel, long type, std::unique_lock<std::mutex>& lock, const Call& call) {
    ++channel.in_flight;
    Delivery delivery{&channel, false};
    Delivery* const outer = std::exchange(current_delivery, &delivery);  // a sink may post to a direct receiver
    lock.unlock();
    const bool returned = Guarded("receiver", type, call);
    lock.lock();
    current_delivery = outer;
    channel.leaving -= delivery.leaving ? 1 : 0;
    --channel.in_flight;
    settled_.notify_all();
    return returned;
}

// The place of the completion is reserved first: once the receiver has taken the message, nothing may fail.
int MessageBus::GiveDirectly(Message message, std::string_view body, Channel& channel,
                             std::unique_lock<std::mutex>& lock) {
    if (const int refused = AdmissionStatus(message.sender, 0)) {
        return refused;
    }
    std::list<Message> completion;
    completion.emplace_back(std::move(message));
    const std::shared_ptr<const DirectReceiver> receiver = channel.receiver.direct;
    ++reserved_;
    bool taken = false;
    const long type = completion.front().type;
    const bool returned = CallReceiver(channel, type, lock, [&] { taken = (*receiver)(body); });
    --reserved_;
    if (returned && taken && completion.front().exchange != nullptr) {
        completion.front().deadline = Clock::time_point::max();
        completion.front().taken = true;
        queue_.splice(queue_.end(), completion);
    }
    work_.notify_all();
    return returned && taken ? kBusOk : kBusReceiverFailed;
}

void MessageBus::DeliverLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        work_.wait(lock, [this] { return (stopping_ && reserved_ == 0) || !queue_.empty(); });
        if (queue_.empty()) {
            return;
        }
        Message message = std::move(queue_.front());
        queue_.pop_front();
        queued_bytes_ -= message.body.size();
        Finish(message, message.taken ? kBusOk : Deliver(message, lock), lock);
    }
}

int MessageBus::Deliver(const Message& message, std::unique_lock<std::mutex>& lock) {
    if (message.deadline <= Clock::now()) {
        return kBusTimedOut;
    }
    Channel* const channel = FindChannel(message.target, message.type);
    if (channel == nullptr || channel->receiver.sink == nullptr) {
        return kBusUndelivered;
    }
    const Receiver receiver = channel->receiver;
    void* token = nullptr;
    if (message.exchange != nullptr) {
        message.exchange->receiver = message.target;
        token = reinterpret_cast<void*>(message.exchange->token);  // NOLINT(performance-no-int-to-ptr): never followed
    }
    const bool taken = CallReceiver(*channel, message.type, lock, [&] {
        receiver.sink->ReceiveCallback(message.sender, message.type,
                                       reinterpret_cast<const unsigned char*>(message.body.data()),
                                       static_cast<unsigned int>(message.body.size()), token, receiver.context);
    });
    return taken ? kBusOk : kBusReceiverFailed;
}

void MessageBus::Finish(Message& message, int outcome, std::unique_lock<std::mutex>& lock) {
    if (message.exchange == nullptr) {
        if (outcome != kBusOk && outcome != kBusReceiverFailed) {
            QXPAGENT_LOG(kLogWarn, "a message of type %ld was not delivered (%d)", message.type, outcome);
        }
        return;
    }
    Exchange& exchange = *message.exchange;
    if (message.completion.sink == nullptr) {  // a request: whoever waits for it takes the answer
        if (outcome != kBusOk && !exchange.done) {
            exchange.done = true;
            exchange.outcome = outcome;
            exchange.changed.notify_one();
        }
        return;
    }
    exchanges_.erase(exchange.token);
    const std::string answer = std::move(exchange.answer.bytes);
    const BusCompletion completion = message.completion;
    lock.unlock();
    Guarded("send completion", message.type, [&] {
        completion.sink->SendCallback(outcome, message.type,
                                      answer.empty() ? nullptr : reinterpret_cast<const unsigned char*>(answer.data()),
                                      static_cast<unsigned int>(answer.size()), completion.number, completion.context);
    });
    lock.lock();
}

void MessageBus::ExpireLoop() {
    std::unique_lock lock(mutex_);
    while (!expiry_stopping_) {
        const Clock::time_point now = Clock::now();
        std::list<Message> expired;
        armed_ = Clock::time_point::max();
        for (auto message = queue_.begin(); message != queue_.end();) {
            const auto next = std::next(message);
            if (message->deadline <= now) {
                queued_bytes_ -= message->body.size();
                expired.splice(expired.end(), queue_, message);
            } else {
                armed_ = std::min(armed_, message->deadline);
            }
            message = next;
        }
        for (Message& message : expired) {
            Finish(message, kBusTimedOut, lock);
        }
        if (!expired.empty()) {
            continue;  // the queue may have changed while the sinks were told
        }
        if (armed_ == Clock::time_point::max()) {
            expiry_.wait(lock);
        } else {
            expiry_.wait_until(lock, armed_);
        }
    }
}

}  // namespace qxpagent
