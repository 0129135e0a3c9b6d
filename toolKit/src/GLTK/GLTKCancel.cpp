#include "GLTKCancel.h"

#include <csignal>

namespace GLTK {

std::atomic<bool> cancelFlag{false};

static void onSignal(int)
{
    cancelFlag.store(true, std::memory_order_relaxed);
}

void installCancelHandlers()
{
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: a blocked read or write returns early
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

} // namespace GLTK
