#include "ctl/check/ElfSymbols.h"

#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "support/RegularFile.h"

namespace keywardctl::check {

namespace {

constexpr std::size_t kLargestLibrary = std::size_t{64} * 1024 * 1024;

using Header = ElfW(Ehdr);
using Section = ElfW(Shdr);
using Symbol = ElfW(Sym);

constexpr unsigned char kClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char kData = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;

// Every number in the file may be a lie: nothing is read but what lies inside of it.
template <typename Record>
bool readAt(const std::string& content, std::size_t offset, Record& record) {
    if (offset > content.size() || content.size() - offset < sizeof(Record))
        return false;
    std::memcpy(&record, content.data() + offset, sizeof(Record));
    return true;
}

std::string textAt(const std::string& content, const Section& strings, std::size_t offset) {
    if (strings.sh_offset > content.size() || strings.sh_size > content.size() - strings.sh_offset ||
        offset >= strings.sh_size)
        return {};
    const std::size_t begin = strings.sh_offset + offset;
    const auto end = content.find('\0', begin);
    return content.substr(begin, end == std::string::npos ? end : end - begin);
}

std::vector<Section> sectionsOf(const std::string& content, const Header& header) {
    std::vector<Section> sections;
    Section section{};
    for (std::size_t index = 0; header.e_shoff != 0 && index < header.e_shnum; ++index) {
        if (!readAt(content, header.e_shoff + index * header.e_shentsize, section))
            break;
        sections.push_back(section);
    }
    return sections;
}

void addSymbols(const std::string& content, const Section& table, const Section& strings, LibraryLook& look) {
    Symbol symbol{};
    for (std::size_t offset = 0; offset + sizeof(Symbol) <= table.sh_size; offset += sizeof(Symbol)) {
        if (!readAt(content, table.sh_offset + offset, symbol))
            return;
        const auto binding = static_cast<unsigned>(symbol.st_info) >> 4U;
        const bool isForOthers = binding == STB_GLOBAL || binding == STB_WEAK;
        if (isForOthers && symbol.st_shndx != SHN_UNDEF && symbol.st_value != 0)
            look.symbols.insert(textAt(content, strings, symbol.st_name));
    }
}

// The kind of processor is that of this very program.
bool isOurMachine(const Header& header) {
    Header own{};
    std::ifstream self("/proc/self/exe", std::ios::binary);
    if (!self.read(reinterpret_cast<char*>(&own), sizeof(own)))
        return true;
    return own.e_machine == header.e_machine;
}

bool isLibrary(const std::string& content, Header& header) {
    return readAt(content, 0, header) && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == kClass && header.e_ident[EI_DATA] == kData &&
           header.e_type == ET_DYN && isOurMachine(header);
}

}  // namespace

LibraryLook lookAtLibrary(const std::string& path) {
    LibraryLook look;
    std::string content;
    try {
        content = keywarden::readRegularFile(path, kLargestLibrary);
        look.readable = true;
    } catch (const std::runtime_error& error) {
        look.problem = error.what();
        return look;
    }
    Header header{};
    look.isLibrary = isLibrary(content, header);
    if (!look.isLibrary)
        return look;
    const std::vector<Section> sections = sectionsOf(content, header);
    for (const Section& section : sections) {
        if (section.sh_type != SHT_DYNSYM || section.sh_link >= sections.size())
            continue;
        look.hasSymbolTable = true;
        addSymbols(content, section, sections[section.sh_link], look);
    }
    return look;
}

}  // namespace keywardctl::check
