#pragma once

#include "qxhost/cpstring.h"

/// What the agent says about its connection to the server.
struct ConnectInfo {
    /// "1" when the agent is online.
    CPString strFlag;
    CPString strServerIp;
    unsigned short wPort = 0;
};

/// Reads the members "onlineflag", "ip" and "port" of a JSON object. A member that is missing or is no string leaves
/// its field empty or 0; the port is cut to 16 bits. False when the text is not JSON.
bool ParseConnectInfo(const CPString& strJson, ConnectInfo& stInfo);
