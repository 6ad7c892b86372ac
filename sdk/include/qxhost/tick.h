#pragma once

/// Milliseconds of the monotonic clock, which does not run while the machine is suspended. Not related to the time of
/// day. Any thread.
extern "C" unsigned long QxGetTickCount();
