#pragma once

namespace qxpmaint_impl {

// Two checks of the sibling daemon, for callers to come. Any thread.

/// True when the process runs the daemon's executable.
bool IsWardenProc(int iPid);
/// The pid in the daemon's pid file, or -1.
int GetWardenPid();

}  // namespace qxpmaint_impl
