#pragma once

#include <string>
#include <string_view>

namespace keywarden {

/// What a handler caught, told apart the way nearly every guarded call reports it: the daemon's own
/// exception, a std::runtime_error, another std::exception, or anything else.
///
///     } catch (...) {
///         Log::write(SeverityError, Failure::current().message("Daemon exception ...: ",
///                                                              "std exception ...: ", "Unknown ...."));
///     }
class Failure {
  public:
    enum class Kind { Daemon, Runtime, Standard, Unknown };

    /// Only inside a catch block. Never throws the caught exception on.
    [[nodiscard]] static Failure current();

    [[nodiscard]] Kind kind() const { return kind_; }
    /// The daemon exception's code; 0 for every other kind.
    [[nodiscard]] int code() const { return code_; }
    /// what(), or "Unknown error" when it is empty or the kind is Unknown.
    [[nodiscard]] const std::string& text() const { return text_; }
    /// what() as it stands: empty when there is none.
    [[nodiscard]] std::string textOrNothing() const { return hasText_ ? text_ : std::string(); }

    /// Three cases: a daemon exception, any standard exception (a runtime error included), anything else.
    [[nodiscard]] std::string message(std::string_view daemonPrefix, std::string_view standardPrefix,
                                      std::string_view unknownText) const;

    /// Three cases: a runtime error, any other standard exception (the daemon's included), anything else.
    [[nodiscard]] std::string runtimeMessage(std::string_view runtimePrefix, std::string_view standardPrefix,
                                             std::string_view unknownText) const;

    /// Two cases: any standard exception (the daemon's included), anything else.
    [[nodiscard]] std::string message(std::string_view standardPrefix, std::string_view unknownText) const;

  private:
    Kind kind_ = Kind::Unknown;
    int code_ = 0;
    bool hasText_ = false;
    std::string text_ = "Unknown error";
};

}  // namespace keywarden
