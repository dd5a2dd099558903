#include "testsupport/Sandbox.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace testsupport {

Sandbox::Sandbox() {
    std::string pattern = (std::filesystem::temp_directory_path() / "keyward-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("no sandbox folder: " + pattern);
    path_ = pattern;
    std::filesystem::permissions(path_, std::filesystem::perms(0755));
}

Sandbox::~Sandbox() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string Sandbox::write(const std::string& name, const std::string& content, unsigned mode) const {
    const std::filesystem::path file = path(name);
    std::filesystem::create_directories(file.parent_path());
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << content;
        if (!out.flush())
            throw std::runtime_error("cannot write " + file.string());
    }
    if (::chmod(file.c_str(), static_cast<mode_t>(mode)) != 0)
        throw std::runtime_error("cannot set the mode of " + file.string());
    return file.string();
}

std::string Sandbox::read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool Sandbox::exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

unsigned Sandbox::mode(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        throw std::runtime_error("cannot stat " + path);
    return info.st_mode & 07777U;
}

}  // namespace testsupport
