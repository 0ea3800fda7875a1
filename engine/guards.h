// Guards of a run. Stopping on request: a flag, set from a signal handler, is checked at safe
// points (between blocks, between rows of a block being built); a computation that finds it set
// throws Interrupted, which the fit turns into its Interrupted status. And GSL's errors as codes.
#pragma once

#include <atomic>
#include <functional>
#include <stdexcept>

namespace corefit {

using StopFlag = std::atomic<bool>;

class Interrupted : public std::runtime_error {
public:
    Interrupted() : std::runtime_error("interrupted on request") {}
};

inline bool stopRequested(const StopFlag* stop) {
    return stop != nullptr && stop->load(std::memory_order_relaxed);
}

inline void throwIfStopped(const StopFlag* stop) {
    if (stopRequested(stop)) throw Interrupted();
}

// Runs body(i) for i in [0, count) on up to `threads` threads, each taking the next i when it is
// done (so a thread slowed by other work takes fewer). Stops starting new ones when stop is set,
// and then throws Interrupted; the first exception of a body is thrown once all have ended.
void parallelFor(long count, int threads, const StopFlag* stop,
                 const std::function<void(long)>& body);

// GSL reports errors through a handler that aborts the program by default. The engine turns it
// off once for the whole run and checks the status of every GSL call instead.
void gslErrorsAsCodes();

} // namespace corefit
