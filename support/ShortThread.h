#pragma once

#include <functional>

namespace keywarden {

/// Runs `body` in a thread that ends with it, and waits for that. For threads that sleep most of the time,
/// when there is much to do: what the C library and libcrypto keep for each thread that has worked (freed
/// memory for the next time, generators of random numbers, stack) is some tens of KiB, which with two threads
/// a service are most of what the daemon would need. What `body` throws passes through. Where no thread, or
/// no memory for one, is to be had the caller does the work itself.
void runInShortThread(const std::function<void()>& body);

}  // namespace keywarden
