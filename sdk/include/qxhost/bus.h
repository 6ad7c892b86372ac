#pragma once

#include "qxhost/guid.h"

// The message bus between a plugin and its host. These are binary interfaces: the order of the virtual functions is
// fixed, and a new one may only be added at the end.

/// Takes messages that arrive for a component. The component owns its sink and must keep it alive until
/// UnregisterReceive has returned for every type it was registered for.
class IMRReceiveComplete {
public:
    virtual ~IMRReceiveComplete() = default;

    /// A message has come. Called on a thread of the bus, possibly on several at once; may itself call the endpoint.
    /// What it throws is the bus's to stop.
    /// @param stComponentID  the sender.
    /// @param i64MsgType     the message type.
    /// @param pData          the body, uiDataLength bytes, not NUL-terminated; valid only during the call.
    /// @param pReplyCtx      token for IXBusMREndPoint4::Reply, good once; null when no answer is expected.
    /// @param pEndPoint      the context given to RegisterReceive.
    virtual void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                                 unsigned int uiDataLength, void* pReplyCtx, void* pEndPoint) = 0;
};

/// Told once that a SendAsync has ended.
class IMRSendComplete {
public:
    virtual ~IMRSendComplete() = default;

    /// The send has ended. Called on a thread of the bus, once; may itself call the endpoint.
    /// @param first   the outcome: 0 when the receiver took the message.
    /// @param second  the message type.
    /// @param third, fourth  the receiver's answer and its length; null and 0 when there is none; valid only
    ///                       during the call.
    /// @param fifth   the number that SendAsync gave out.
    /// @param sixth   the context given to SendAsync.
    virtual void SendCallback(int first, long second, const unsigned char* third, unsigned int fourth,
                              unsigned long fifth, void* sixth) = 0;
};

/// One component's connection to the bus. Owned by the host, which hands it over unattached (the plugin attaches it
/// when it starts, and detaches it when it stops) and keeps it alive from SetCtx until the plugin object has been
/// uninitialised; for good when a log line says then that threads are left, since they may still send. Every operation
/// may be called from any thread; a host has to offer all of them. None may throw. Where a result is an int, 0 is
/// success and anything else a code of the host's own.
class IXBusMREndPoint4 {
public:
    /// Attaches this endpoint to the bus as stComponentID.
    /// @return 0, or non-zero when the name is taken or the endpoint is attached already. A plugin that gets non-zero
    ///         registers nothing and goes on without the bus.
    virtual int Initialize(const GUID& stComponentID) = 0;

    /// Detaches the endpoint. Registrations end with it. The result is for the host's own use; plugins ignore it.
    virtual int Uninitialize() = 0;

    /// Sends a request and waits for its answer: the one operation that blocks for it.
    /// @param pData, uiLength  the body; the caller's, read during the call only. May be null and 0.
    /// @param puiStatus, ppReply, puiReplyLength  receive the answer of a success; the reply bytes belong to
    ///                                            the endpoint, FreeReply releases them. Null and 0 when the answer is
    ///                                            empty.
    /// @param uiTimeOut  in milliseconds.
    /// @return 0 when it was sent and answered in time.
    virtual int SendRequest(const GUID& stTarget, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                            unsigned int* puiStatus, unsigned char** ppReply, unsigned int* puiReplyLength,
                            unsigned int uiTimeOut) = 0;

    /// Releases a reply of this endpoint's SendRequest, once. Non-zero for anything else.
    virtual int FreeReply(unsigned char* pReply) = 0;

    /// From now on messages of this type that are addressed to this component go to pSink.
    /// @param pSink     stays the caller's, until UnregisterReceive has returned.
    /// @param pContext  the last argument of the callback; not looked at.
    /// @return 0, or non-zero when the endpoint is not attached or the type is registered already.
    virtual int RegisterReceive(long i64MsgType, IMRReceiveComplete* pSink, void* pContext) = 0;

    /// Ends that delivery. Returns only when no delivery of this type is in flight, except when it is called from
    /// within such a delivery: then that one delivery is not waited for. A type that is not registered, or an endpoint
    /// that is not attached, is no error and changes nothing: a plugin unregisters also what it could not register.
    virtual int UnregisterReceive(long i64MsgType) = 0;

    /// Answers a received message, from within its delivery or later. The data is copied before the call returns: the
    /// caller's bytes may be gone then.
    /// @param iStatus     goes to the sender as it is.
    /// @param pReplyCtx   the token of the delivery. Good once; a second use returns non-zero and does nothing.
    virtual int Reply(int iStatus, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                      void* pReplyCtx) = 0;

    /// Queues a message; the data is copied before the call returns.
    /// @param pSink      told of the outcome on a bus thread, once, and never of a send that was refused; may be null.
    ///                   Must outlive the send, which may be under way when the process exits.
    /// @param pOut       receives a number that names this send, before the call returns and never later: it may point
    ///                   into the caller's frame; may be null.
    /// @param uiTimeOut  in milliseconds, after which an undelivered message is given up.
    /// @return 0 when queued; anything else when refused.
    virtual int SendAsync(const GUID& stTarget, long i64MsgType, const unsigned char* pData, unsigned int uiLength,
                          IMRSendComplete* pSink, void* pContext, unsigned long* pOut, unsigned int uiTimeOut) = 0;

protected:
    // Not virtual: a host owns its endpoints and destroys them by their own type.
    ~IXBusMREndPoint4() = default;
};
