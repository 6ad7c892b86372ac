#pragma once

/// What a host passes to a plugin object's Initialize. The block stays the host's and is read during the call only. A
/// host may append fields of its own; plugins read the first.
struct QxInitBlock {
    /// Items "key=value" separated by ':', of which a plugin takes "agent_type" and "conf_path", the path of its INI
    /// file. Null or empty stands for "agent_type=KSTL:conf_path=../etc/plugins/NAME/NAME.conf", with NAME the plugin's
    /// own, as in "../etc/plugins/qxpmaint/qxpmaint.conf".
    ///
    /// A relative path counts from the working directory of the process, which is for the host to set before, and not
    /// from the plugin's. A file that is named and cannot be read makes Initialize fail; without "conf_path" none is
    /// read.
    const char* pszInitParam;
};
