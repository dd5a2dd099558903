#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

/// Ends the run as a finding, with the broken promise on standard error.
void require(bool holds, const char* promise);

/// A file with this content for the readers that take a path; one file a process, written anew by every call.
std::string fileWith(const std::string& content);

/// What the next program that the code runs (network script, hook, script for the common name) will print.
void setProgramOutput(const std::string& printed);

}  // namespace fuzz

/// libFuzzer's entry point: one a program.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
