#pragma once

#include <string>

namespace keywarden {

/// The code that stands before the text of every answer; a failure that carries one
/// (KeywardenDaemonException) is answered with it. The numbers are the interface.
enum AnswerCode : int {
    AnswerSuccess = 0,             ///< done, or the data that was asked for
    AnswerFailure = 1,             ///< a failed reload, a missing file, and any failure without a code
    AnswerBadCommand = 4,          ///< a line that cannot be parsed, "Bad Command ...", "Command error"
    AnswerNotPossible = 7,         ///< the service, the store or the daemon is not there to do it
    AnswerCommonNameEmpty = 8,     ///< the settings of a certificate leave its common name empty
    AnswerCertificateInvalid = 9,  ///< no certificate, or one that does not fit its purpose
    AnswerRequestUnreadable = 21,  ///< there is no pending request that could be read
    AnswerNotForTheRequest = 26,   ///< the certificate does not match the pending request
    AnswerStoreFull = 42,          ///< the store takes no more certificates, or none with this hash
    AnswerAlreadyPresent = 43,     ///< the same certificate is in the store
};

/// The text, with AnswerNotPossible, for a requester who waits while the daemon or its service stops.
constexpr const char* kTerminationText = "The daemon just terminate";

// The two answers to "status".
constexpr const char* kRunningText = "running";
constexpr const char* kStoppedText = "stoped";

struct Answer {
    int code = AnswerSuccess;
    std::string text;
};

}  // namespace keywarden
