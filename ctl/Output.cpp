#include "ctl/Output.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

#include "ctl/Problem.h"
#include "support/FileStatus.h"
#include "support/FileWriter.h"

namespace keywardctl {

namespace {

void writeInto(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::app);
    file << text << std::flush;
    if (!file)
        throw Problem(ExitCode::Failed, "'" + path + "' cannot be written");
}

// Where the links on the way lead.
std::string resolved(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    if (!real)
        throw Problem(ExitCode::Failed, fileProblem("cannot find", path, errno));
    return real.get();
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
    const auto there = keywarden::statusOfPath(path);
    const bool isNone = !there && (errno == ENOENT || errno == ENOTDIR);
    if (!isNone && (!there || !there->isRegular())) {
        writeInto(path, text);
        return;
    }
    try {
        keywarden::FileWriter::write(there ? resolved(path) : path, text, {});
    } catch (const std::exception& failure) {
        throw Problem(ExitCode::Failed, failure.what());
    }
}

void note(const std::string& text) {
    std::cerr << "keywardctl: " + text + "\n" << std::flush;
}

}  // namespace keywardctl
