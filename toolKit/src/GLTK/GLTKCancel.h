#pragma once
// A process-wide stop request. SIGTERM and SIGINT set it; long loops (file
// copies, the transcoding loop) look at it and stop, reporting failure, so
// that the run cleans up after itself and exits with status 1.
#include <atomic>

namespace GLTK {

extern std::atomic<bool> cancelFlag;

inline bool cancelRequested() { return cancelFlag.load(std::memory_order_relaxed); }
inline void requestCancel() { cancelFlag.store(true, std::memory_order_relaxed); }
// Installs the signal handlers that request the stop.
void installCancelHandlers();

} // namespace GLTK
