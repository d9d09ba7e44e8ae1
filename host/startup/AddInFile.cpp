#include "host/startup/AddInFile.h"

#include <elf.h>
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>

namespace {

constexpr std::array<const char*, 2> cEntryPoints = {"CreateAddIn", "DestroyAddIn"};

// A shared library's bytes; anything that lies beyond them reads as nothing.
class CLibraryFile {
public:
    explicit CLibraryFile(std::string_view whole) : bytes(whole) {}

    template <typename Record>
    bool Read(std::uint64_t offset, Record& record) const {
        if (offset > bytes.size() || bytes.size() - offset < sizeof record)
            return false;
        std::memcpy(&record, bytes.data() + offset, sizeof record);
        return true;
    }

    std::string_view Text(std::uint64_t offset) const {
        if (offset >= bytes.size())
            return "";
        const std::string_view rest = bytes.substr(offset);
        const std::size_t end = rest.find('\0');
        return end == std::string_view::npos ? "" : rest.substr(0, end);
    }

private:
    std::string_view bytes;
};

bool IsLibraryOfThisMachine(const CLibraryFile& file, Elf64_Ehdr& header) {
    return file.Read(0, header) && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
           header.e_machine == EM_X86_64 && header.e_type == ET_DYN;
}

// The names that the library defines for others, functions and data.
std::set<std::string_view> DefinedNames(const CLibraryFile& file, const Elf64_Ehdr& header) {
    std::set<std::string_view> names;
    for (unsigned int index = 0; index < header.e_shnum; ++index) {
        Elf64_Shdr symbols{};
        Elf64_Shdr texts{};
        if (!file.Read(header.e_shoff + std::uint64_t{index} * sizeof symbols, symbols) ||
            symbols.sh_type != SHT_DYNSYM ||
            !file.Read(header.e_shoff + std::uint64_t{symbols.sh_link} * sizeof texts, texts))
            continue;
        for (std::uint64_t position = 0; position < symbols.sh_size;
             position += sizeof(Elf64_Sym)) {
            Elf64_Sym symbol{};
            if (!file.Read(symbols.sh_offset + position, symbol))
                break;
            if (symbol.st_shndx != SHN_UNDEF)
                names.insert(file.Text(texts.sh_offset + symbol.st_name));
        }
    }
    return names;
}

}  // namespace

std::string WhyNotAnAddIn(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(stream),
                            std::istreambuf_iterator<char>()};
    if (!stream.is_open() || stream.bad())
        return fmt::format("cannot read it: {}", std::strerror(errno));
    const CLibraryFile file(bytes);
    Elf64_Ehdr header{};
    if (!IsLibraryOfThisMachine(file, header))
        return "it is not a shared library for x86-64";
    const std::set<std::string_view> names = DefinedNames(file, header);
    for (const char* const entryPoint : cEntryPoints) {
        if (!names.contains(entryPoint))
            return fmt::format("it has no {}", entryPoint);
    }
    return "";
}
