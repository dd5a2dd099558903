#pragma once

namespace keywarden {

/// Does once, with a key and certificates of its own, what the daemon does with libcrypto: what that sets up
/// at the first use of a function (random generators, tables, the methods of its providers) is set up then.
/// Some of it is never tried again after memory was short, and no key could be made until the process ends.
/// Writes no trace. Throws std::exception.
void rehearseCrypto();

}  // namespace keywarden
