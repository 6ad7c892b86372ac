#pragma once

namespace qxpmaint_impl {

// The handlers that init hands to the adapter. Bus threads call them, possibly several at once.

/// Takes a command message. Always 0; a refused command that has an ID is answered with a short reply.
int plugin_recv_handler(const char* pJsonData);

/// The same for a policy file, on the loader thread. False when it is to stay for another time: there is no manager to
/// take it. What is thrown (memory) means the same.
bool AcceptPolicyFile(const char* pJsonData);

// These only log.
int connect(const char* pszHost, int iPort);
int disconnect();
int notify_mgr_to_plugin(int iId, const char* pszText);

}  // namespace qxpmaint_impl
