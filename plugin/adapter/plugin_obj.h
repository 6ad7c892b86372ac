#pragma once

/// The operations of a plugin object (see PluginObjInterface in adapter/entry_points.h for their contracts), each on
/// the one adapter manager, which is made if there is none. No exception leaves them.
class CqxpmaintPluginObj {
public:
    static int Initialize(void* pInitParam);
    static void Uninitialize();
    static int Start();
    static int Stop();
    static unsigned int GetStatus();
    static void* GetCtx(void* pUnused);
    static void SetCtx(void* pData);
    static int Info(void* pInfo);
};
