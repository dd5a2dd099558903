// A requester's line: whatever it holds, it is refused with a text or says the same when it is written again.
#include <stdexcept>

#include "channel/Commands.h"
#include "fuzz/Fuzz.h"

using keywarden::Commands;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string line = fuzz::textOf(data, size);
    try {
        const Commands parsed(line);
        fuzz::require(parsed.toMessage() == line,
                      "a line that was understood is the same when written again");
        fuzz::require(
            parsed.getTarget() != Commands::TargetNone && parsed.getCommand() != Commands::CommandNone,
            "a line that was understood has a target and a command");
    } catch (const std::runtime_error& refused) {
        fuzz::require(*refused.what() != '\0', "a refusal has a text");
    }
    return 0;
}
