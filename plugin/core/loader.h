#pragma once

namespace qxpmaint_impl {

/// The loader thread: feeds the files of the policy-file directory to the manager and deletes them, until it is told to
/// stop or another loader has taken its place. The argument is a CThreadTicket made with new, which the thread takes
/// over; null for none.
void* qxpmaint_loadpolicyfile_thread(void* pArgument);

/// Tells the loader, if there is one, to end after its scan. Does not wait.
void RequestLoaderEnd();

}  // namespace qxpmaint_impl
