#include "Output.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>

#include "Problem.h"
#include "support/FileWriter.h"

namespace keywardctl {

namespace {

void writeInto(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::app);
    file << text << std::flush;
    if (!file)
        throw Problem(ExitCode::Failed, "'" + path + "' cannot be written");
}

}  // namespace

void print(const std::string& text) {
    std::cout << text << std::flush;
    if (!std::cout)
        throw Problem(ExitCode::Failed, "standard output cannot be written");
}

void writeOutput(const std::string& path, const std::string& text) {
    if (path.empty() || path == "-") {
        print(text);
        return;
    }
    std::error_code error;
    const auto kind = std::filesystem::status(path, error).type();
    if (kind != std::filesystem::file_type::not_found && kind != std::filesystem::file_type::regular) {
        writeInto(path, text);
        return;
    }
    try {
        const bool there = kind == std::filesystem::file_type::regular;
        keywarden::FileWriter::write(there ? std::filesystem::canonical(path).string() : path, text, {});
    } catch (const std::exception& failure) {
        throw Problem(ExitCode::Failed, failure.what());
    }
}

void note(const std::string& text) {
    std::cerr << "keywardctl: " + text + "\n" << std::flush;
}

}  // namespace keywardctl
