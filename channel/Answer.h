#pragma once

#include <string>

namespace keywarden {

/// The code that stands before the text of every answer. A failure that carries a code of its own (8, 9, 21,
/// 26, 42, 43, and 1 for a missing source) is answered with that code.
enum AnswerCode : int {
    AnswerSuccess = 0,      ///< done, or the data that was asked for
    AnswerFailure = 1,      ///< a failed reload, and every failure without a code of its own
    AnswerBadCommand = 4,   ///< a line that cannot be parsed, "Bad Command ...", "Command error"
    AnswerNotPossible = 7,  ///< the service, the store or the daemon is not there to do it
};

struct Answer {
    int code = AnswerSuccess;
    std::string text;
};

}  // namespace keywarden
