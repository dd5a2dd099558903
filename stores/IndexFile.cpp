#include "stores/IndexFile.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "support/FileWriteError.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr std::size_t kLargestIndex = std::size_t{64} * 1024 * 1024;

std::string contentToKeep(const std::string& path, bool truncate) {
    if (truncate || !Tools::fileExist(path))
        return {};
    std::string content = readIndexFile(path);
    if (!content.empty() && content.back() != '\n')
        content += '\n';
    return content;
}

}  // namespace

void failToOpenIndex(const std::string& path) {
    throw std::runtime_error("Impossible to open the list file " + path + ".");
}

void writeIndexFile(const std::string& path, const std::string& lines, bool truncate,
                    const FileAttributes& attributes) {
    const std::string content = contentToKeep(path, truncate) + lines;
    try {
        FileWriter::write(path, content, attributes);
    } catch (const FileWriteError&) {
        failToOpenIndex(path);
    }
}

std::string readIndexFile(const std::string& path) {
    try {
        return readRegularFile(path, kLargestIndex);
    } catch (const std::runtime_error&) {
        failToOpenIndex(path);
    }
}

std::string onOneLine(std::string text) {
    const auto isControl = [](char character) {
        const auto code = static_cast<unsigned char>(character);
        return code < 0x20 || code == 0x7f;
    };
    std::replace_if(text.begin(), text.end(), isControl, ' ');
    return text;
}

}  // namespace keywarden
