#pragma once

namespace qxpmaint_impl {

/// Reads the init parameter string, items "key=value" separated by ':', into g_szAgentType and g_szConfPath. False for
/// null or an empty string.
bool analyze_set_init_kv(const char* pszKv);

/// The handler of inih's ini_parse. Always non-zero: every entry counts as handled.
int qxpmaint_ini_parse_handler(void* pUser, const char* pszSection, const char* pszName, const char* pszValue);

}  // namespace qxpmaint_impl
