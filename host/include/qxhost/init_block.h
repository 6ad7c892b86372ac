#pragma once

/// What a host passes to a plugin object's Initialize. A host may append fields of its own; plugins read the first.
struct QxInitBlock {
    /// Items "key=value" separated by ':', as in "agent_type=KSTL:conf_path=../etc/plugins/x/x.conf". May be null or
    /// empty; the plugin then uses its default. Valid during the call only.
    const char* pszInitParam;
};
