#pragma once

namespace qxpmaint_impl {

/// The loader thread: feeds the files of the policy-file directory to plugin_recv_handler and deletes them, until it is
/// told to stop or another loader has taken its place. The argument is ignored.
void* qxpmaint_loadpolicyfile_thread(void* pArgument);

}  // namespace qxpmaint_impl
