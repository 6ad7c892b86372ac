#pragma once

#include <atomic>
#include <cstdint>

#include "plugin/adapter/plugin_fun_table.h"
#include "plugin/adapter/receive.h"
#include "plugin/adapter/send.h"
#include "qxhost/bus.h"
#include "qxhost/cpstring.h"

/// The states of CqxpmaintMgr::status, which a host reads through GetStatus.
enum : uint32_t {
    STATUS_CREATED = 0,
    STATUS_INITIALIZED = 1,  ///< Set just before the init slot is called.
    STATUS_STARTED = 2,
    STATUS_STOPPED = 3,
    STATUS_UNINITIALIZED = 4,
};

/// The adapter manager, one a process: turns the host's lifecycle calls into calls of the plugin's function table,
/// registers on the bus and asks the agent for the server's address.
///
/// Operations are called on the host's calling thread, never two at once. It takes no lock; bus threads reach it
/// through the receive sink, the plugin's threads through AdapterSendToMgr, and both only touch what is marked atomic
/// here.
class CqxpmaintMgr {
public:
    /// The one manager. Made on first use, destroyed by CqxpmaintPluginObj::Uninitialize. Atomic.
    static std::atomic<CqxpmaintMgr*> m_pThis;

    /// The host's endpoint; never owned. Atomic.
    std::atomic<IXBusMREndPoint4*> m_pCompCtx{nullptr};
    /// The sink that Start registers on the bus.
    CqxpmaintReceive m_stReceive;
    CqxpmaintAsynCallback m_stAsynCallback;
    /// Atomic.
    std::atomic<uint32_t> status{STATUS_CREATED};
    /// The plugin's table, null until CreateObject succeeds; never owned.
    PluginFunTable* m_pPluginFun = nullptr;
    /// Fields 2 to 5 are atomic, the others belong to the host's calling thread.
    PluginInitParam m_stPluginInit{};
    /// The class id given to CreateObject.
    CPString plugin_name;
    /// The master copy of the receive sink's registry.
    CMsgTypeRegistry msg_type_registry;

    CqxpmaintMgr() = default;
    CqxpmaintMgr(const CqxpmaintMgr&) = delete;
    CqxpmaintMgr& operator=(const CqxpmaintMgr&) = delete;

    /// The one manager, made if there is none; null when memory is short. Any thread.
    static CqxpmaintMgr* Instance();
    /// Destroys the one manager. No other thread may be using it.
    static void DestroyInstance();

    /// Takes the plugin's table for a class id. False for null or when the plugin refuses it.
    bool CreateObject(const char* pszName);
    /// Gives the table back.
    void DestroyObject(const char* pszName);
    /// pData: the host's IXBusMREndPoint4; null is refused and changes nothing.
    void SetCtx(void* pData);
    /// pInitParam: the host's QxInitBlock. The result of the init slot, 0xE0010001 without a table, 0xE0010002 for
    /// null.
    int Initialize(void* pInitParam);
    /// The result of the start slot; 0xE0010000 without a table or an endpoint. A failing registration or connect query
    /// does not fail it.
    int Start();
    /// The result of the stop slot; 0xE0010000 without a table or an endpoint. On return no message is being delivered
    /// (as the endpoint promises).
    int Stop();
    void Uninitialize();

    /// Asks the agent for the server's address and waits up to 5 seconds. On success the arguments hold what the answer
    /// tells, empty or 0 for what it does not.
    bool GetServerConnectInfo(CPString& strFlag, CPString& strServerIp, unsigned short& wPort);

    // What the plugin calls, through its init block. Any thread.

    /// Wraps a JSON text in an envelope and sends it to the manager component; the names are ignored. 0 when queued, -1
    /// for empty data or another json_data_type than 1 and 2, else as SendJsonComboDataAsyncEx.
    static int AdapterSendToMgr(int json_data_type, const char* name1, const char* name2, int value4,
                                const unsigned char* data, unsigned int len);
    /// Does nothing.
    static void AdapterNotifyToMgr(int, const unsigned char*);

private:
    void RegisterOnBus(IXBusMREndPoint4& endPoint);
    void ConnectIfOnline();
};
