#pragma once

#include <array>
#include <cstddef>
#include <stdexcept>

#include "channel/Commands.h"

namespace keywarden {

/// Some numbers of arguments.
class ArgumentCounts {
  public:
    /// None at all: not even a request without arguments.
    constexpr ArgumentCounts() = default;

    /// Throws, and so does not compile in a table, for a number that is not told from greater ones.
    static constexpr ArgumentCounts exactly(std::size_t number) {
        return number < kMany ? ArgumentCounts(1U << number) : throw std::logic_error("number");
    }
    static constexpr ArgumentCounts atLeast(std::size_t number) {
        return number <= kMany ? ArgumentCounts(kAll & ~((1U << number) - 1U))
                               : throw std::logic_error("number");
    }

    constexpr ArgumentCounts operator|(ArgumentCounts other) const {
        return ArgumentCounts(bits_ | other.bits_);
    }
    [[nodiscard]] constexpr bool contains(std::size_t number) const {
        return ((bits_ >> (number < kMany ? number : kMany)) & 1U) != 0;
    }
    [[nodiscard]] constexpr bool isEmpty() const { return bits_ == 0; }

  private:
    /// From here on all numbers are the same.
    static constexpr std::size_t kMany = 4;
    static constexpr unsigned kAll = (1U << (kMany + 1)) - 1U;

    explicit constexpr ArgumentCounts(unsigned bits) : bits_(bits) {}

    unsigned bits_ = 0;
};

/// A command as requesters know it: its word, and with how many arguments each target takes it.
struct CommandRow {
    Commands::Command code;
    const char* word;
    ArgumentCounts server;
    ArgumentCounts store;  ///< "ca" and "client"
    ArgumentCounts config;

    [[nodiscard]] constexpr ArgumentCounts of(Commands::Target target) const {
        switch (target) {
            case Commands::TargetServer:
                return server;
            case Commands::TargetCA:
            case Commands::TargetClient:
                return store;
            case Commands::TargetConfig:
                return config;
            case Commands::TargetNone:
                break;
        }
        return {};
    }
};

/// Whether a table has a row for every code, at the code's place.
template <typename Row, std::size_t size>
constexpr bool hasEveryCommand(const std::array<Row, size>& table) {
    for (std::size_t index = 0; index < size; ++index)
        if (table[index].code != static_cast<Commands::Command>(index))
            return false;
    return size == Commands::CommandEnd;
}

template <typename Row, std::size_t size>
constexpr const Row& rowOf(const std::array<Row, size>& table, Commands::Command command) {
    return table[static_cast<std::size_t>(command)];
}

/// At the place of its code, what a target is called.
constexpr std::array<const char*, Commands::TargetNone> kTargetWords{"server", "ca", "client", "config"};
static_assert(kTargetWords.back() != nullptr);

/// The rows, in the order of the codes. "path" and "info" are as odd as they look.
constexpr std::array<CommandRow, Commands::CommandEnd> everyCommand() {
    constexpr ArgumentCounts refused;
    constexpr ArgumentCounts without = ArgumentCounts::exactly(0);
    constexpr ArgumentCounts one = ArgumentCounts::exactly(1);
    constexpr ArgumentCounts two = ArgumentCounts::exactly(2);
    constexpr ArgumentCounts three = ArgumentCounts::exactly(3);
    constexpr ArgumentCounts any = ArgumentCounts::atLeast(0);
    constexpr ArgumentCounts some = ArgumentCounts::atLeast(1);
    constexpr ArgumentCounts several = ArgumentCounts::atLeast(2);
    // Code, word, and the arguments that "server" takes, "ca" and "client" take, "config" takes.
    return {{
        {Commands::CommandReload, "reload", refused, refused, without},
        {Commands::CommandHelp, "help", without, without, without},
        {Commands::CommandGetCsr, "getcsr", without, refused, refused},
        {Commands::CommandCreateCsr, "createcsr", any, refused, refused},
        {Commands::CommandCreateCrt, "createcrt", three, refused, refused},
        {Commands::CommandApplyCrt, "applycrt", one, refused, refused},
        {Commands::CommandRevoke, "revoke", without, some, refused},
        {Commands::CommandList, "list", refused, without, refused},
        {Commands::CommandAdd, "add", refused, one, refused},
        {Commands::CommandInfo, "info", without | several, some, several},
        {Commands::CommandDetails, "details", without, one, refused},
        {Commands::CommandPath, "path", without | several, without | several, refused},
        {Commands::CommandGetKey, "getkey", without, refused, refused},
        {Commands::CommandGetCert, "getcert", without, one, refused},
        {Commands::CommandNone, "", refused, refused, refused},
        {Commands::CommandGetOverwrittenData, "getOverwrittenData", without, one, refused},
        {Commands::CommandSetOverwrittenData, "setOverwrittenData", two, three, refused},
        {Commands::CommandListByCN, "listByCN", refused, one, refused},
        {Commands::CommandStatus, "status", refused, refused, without},
        {Commands::CommandGetCsrInfo, "getcsrinfo", without, refused, refused},
        {Commands::CommandGetCertInfo, "getcertinfo", any, any, refused},
        {Commands::CommandGetCsrTimestamp, "getcsrtimestamp", without, refused, refused},
    }};
}

constexpr std::array<CommandRow, Commands::CommandEnd> kCommandTable = everyCommand();
static_assert(hasEveryCommand(kCommandTable));

}  // namespace keywarden
