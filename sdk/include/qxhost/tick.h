#pragma once

/// Milliseconds of the monotonic clock. Not related to the time of day.
extern "C" unsigned long QxGetTickCount();
