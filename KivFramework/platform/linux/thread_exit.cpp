#include "KivFramework/platform/thread_exit.h"

#include <atomic>

#include <execinfo.h>

bool KivFramework::platform::prepare_thread_exit() {
    static constinit std::atomic<bool> prepared = false;
    if (!prepared) {
        // The first pthread_exit of a process loads the library that unwinds stacks, and ends the
        // process when there is no memory for that. A backtrace loads it too, and tells.
        void* frame = nullptr;
        prepared = ::backtrace(&frame, 1) == 1;
    }
    return prepared;
}
