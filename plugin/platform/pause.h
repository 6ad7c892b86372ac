#pragma once

#include <chrono>

/// Sleeps for the whole time on the monotonic clock, however many signals arrive meanwhile. A sleep that a signal cuts
/// short would make a bound counted in sleeps as short as a host's interval timer.
void MaintPause(std::chrono::milliseconds time);
