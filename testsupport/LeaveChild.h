#pragma once

namespace testsupport {

/// Ends a forked child at once, as _exit(2) does. Where lines are counted, the child's counts are kept.
[[noreturn]] void leaveChild(int status);

}  // namespace testsupport
