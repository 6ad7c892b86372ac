#pragma once

#include "qxhost/cpstring.h"
#include "qxhost/guid.h"

// The texts of the bus: GUIDs, and what the agent says in JSON. Any thread.

/// Reads the 8-4-4-4-12 hexadecimal form, in braces when the text begins with one. Null gives the all-zero GUID. A text
/// that ends or goes wrong part-way is not detected: what was read before stands, the rest is zero.
GUID ParseGuid(const char* pszText);

/// Writes the 8-4-4-4-12 form in upper case, without braces.
CPString FormatGuid(const GUID& stGuid);

/// Byte-wise.
bool IsSameGuid(const GUID& a, const GUID& b);

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
