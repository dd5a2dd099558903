#include "support/Failure.h"

#include <stdexcept>

#include "support/KeywardenDaemonException.h"

namespace keywarden {

Failure Failure::current() {
    Failure failure;
    const auto take = [&failure](Kind kind, const char* what) {
        failure.kind_ = kind;
        if (what != nullptr && *what != '\0') {
            failure.text_ = what;
            failure.hasText_ = true;
        }
    };
    try {
        // cppcheck-suppress rethrowNoCurrentException ; called inside a handler only, as the header says
        throw;
    } catch (const KeywardenDaemonException& error) {
        take(Kind::Daemon, error.what());
        failure.code_ = error.code();
    } catch (const std::runtime_error& error) {
        take(Kind::Runtime, error.what());
    } catch (const std::exception& error) {
        take(Kind::Standard, error.what());
    } catch (...) {
        failure.kind_ = Kind::Unknown;
    }
    return failure;
}

std::string Failure::message(std::string_view daemonPrefix, std::string_view standardPrefix,
                             std::string_view unknownText) const {
    if (kind_ == Kind::Daemon)
        return std::string(daemonPrefix) + text_;
    return message(standardPrefix, unknownText);
}

std::string Failure::runtimeMessage(std::string_view runtimePrefix, std::string_view standardPrefix,
                                    std::string_view unknownText) const {
    if (kind_ == Kind::Runtime)
        return std::string(runtimePrefix) + text_;
    return message(standardPrefix, unknownText);
}

std::string Failure::message(std::string_view standardPrefix, std::string_view unknownText) const {
    if (kind_ == Kind::Unknown)
        return std::string(unknownText);
    return std::string(standardPrefix) + text_;
}

}  // namespace keywarden
