#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>

#include "plugin/core/plugin_init_param.h"
#include "qxhost/bus.h"
#include "qxhost/cpstring.h"

/// The components whose messages the plugin acts on, and the types of these messages.
inline constexpr char SERVER_DATA_COMPONENT_ID[] = "FAB922A8-736E-4CB5-A666-4FD849A3049A";
inline constexpr char AGENT_CONNECT_COMPONENT_ID[] = "ABC9A772-602C-45F4-9AAC-7096FD9BEDA4";
inline constexpr long MSG_TYPE_PLUGIN_DATA = 20001;
inline constexpr long MSG_TYPE_AGENT_CONNECT = 1000;
inline constexpr long MSG_TYPE_AGENT_DISCONNECT = 1001;

/// Further message types for notify_mgr_to_plugin, each with the senders it is taken from; an empty list takes it from
/// every sender.
using CMsgTypeRegistry = std::map<int64_t, std::list<GUID>>;

/// Bits of CqxpmaintReceive::connect_state_flags.
enum : uint32_t { CONNECT_NOTICE_SEEN = 1, DISCONNECT_NOTICE_SEEN = 2 };

/// The plugin's receive sink: hands each message to the handler for its type and sender, then acknowledges it.
///
/// The fields belong to the adapter manager, which holds the sink. Bus threads read them without a lock.
class CqxpmaintReceive : public IMRReceiveComplete {
public:
    /// The manager's block, null before Initialize. Atomic; so are the block's fields 2 to 5.
    std::atomic<PluginInitParam*> m_pPluginInit{nullptr};
    /// The working copy: changed only while the bus delivers nothing, before Start registers and after Stop has
    /// unregistered.
    CMsgTypeRegistry msg_type_registry;
    /// Which notices have arrived; bits are only ever set. Atomic.
    std::atomic<uint32_t> connect_state_flags{0};

    /// On bus threads, possibly on several at once. pEndPoint is the endpoint that answers. The answer "success" says
    /// that the message was received, not that it was handled, so it is sent in any case.
    void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                         unsigned int uiDataLength, void* pReplyCtx, void* pEndPoint) override;

private:
    struct Message {
        const GUID& stComponentID;
        CPString strComponentID;
        long i64MsgType;
        const unsigned char* pData;
        unsigned int uiDataLength;

        CPString Body() const;
    };

    void Dispatch(const Message& stMessage);
    static void OnPluginData(PluginInitParam& stInit, const Message& stMessage);
    void OnAgentConnect(PluginInitParam& stInit, const Message& stMessage);
    void OnAgentDisconnect(PluginInitParam& stInit, const Message& stMessage);
    void OnNotification(PluginInitParam& stInit, const Message& stMessage) const;
};
