#include "support/ShortThread.h"

#include <malloc.h>

#include <exception>
#include <thread>

#include "support/Cancellation.h"

namespace keywarden {

void runInShortThread(const std::function<void()>& body) {
    std::exception_ptr failure;
    std::thread worker;
    try {
        worker = std::thread([&body, &failure] {
            Cancellation::prepareThread();
            try {
                body();
            } catch (...) {
                failure = std::current_exception();
            }
        });
    } catch (const std::exception&) {
        // Neither a thread nor the memory for one.
    }
    if (!worker.joinable()) {
        body();
        return;
    }
    worker.join();
    // Now that what the thread had kept for itself is free as well.
    ::malloc_trim(0);
    if (failure)
        std::rethrow_exception(failure);
}

}  // namespace keywarden
