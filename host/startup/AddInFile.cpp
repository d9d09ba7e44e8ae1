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

// What the host looks up in the loaded library.
constexpr std::array<const char*, 3> cSymbols = {"CreateAddIn", "DestroyAddIn", "gTaskList"};

// The bytes of a shared library. Reads beyond their end fail; a damaged library must not crash the
// host.
class CLibraryFile {
public:
    explicit CLibraryFile(std::string_view content) : bytes(content) {}

    template <typename Record>
    bool Read(std::uint64_t offset, Record& record) const {
        if (offset > bytes.size() || bytes.size() - offset < sizeof record)
            return false;
        std::memcpy(&record, bytes.data() + offset, sizeof record);
        return true;
    }

    // The zero-terminated string at `offset`; empty when it is not within the file.
    std::string_view String(std::uint64_t offset) const {
        if (offset >= bytes.size())
            return "";
        const std::string_view tail = bytes.substr(offset);
        const std::size_t end = tail.find('\0');
        return end == std::string_view::npos ? "" : tail.substr(0, end);
    }

private:
    std::string_view bytes;
};

bool IsLibraryOfThisMachine(const CLibraryFile& file, Elf64_Ehdr& header) {
    return file.Read(0, header) && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
           header.e_machine == EM_X86_64 && header.e_type == ET_DYN;
}

// The names of the functions and data that the library exports.
std::set<std::string_view> DefinedNames(const CLibraryFile& file, const Elf64_Ehdr& header) {
    std::set<std::string_view> names;
    for (unsigned int index = 0; index < header.e_shnum; ++index) {
        Elf64_Shdr symbols{};
        Elf64_Shdr strings{};
        if (!file.Read(header.e_shoff + std::uint64_t{index} * sizeof symbols, symbols) ||
            symbols.sh_type != SHT_DYNSYM ||
            !file.Read(header.e_shoff + std::uint64_t{symbols.sh_link} * sizeof strings, strings))
            continue;
        for (std::uint64_t position = 0; position < symbols.sh_size;
             position += sizeof(Elf64_Sym)) {
            Elf64_Sym symbol{};
            if (!file.Read(symbols.sh_offset + position, symbol))
                break;
            if (symbol.st_shndx != SHN_UNDEF)
                names.insert(file.String(strings.sh_offset + symbol.st_name));
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
        return fmt::format("cannot read the file: {}", std::strerror(errno));
    const CLibraryFile file(bytes);
    Elf64_Ehdr header{};
    if (!IsLibraryOfThisMachine(file, header))
        return "it is not a shared library for x86-64";
    const std::set<std::string_view> names = DefinedNames(file, header);
    for (const char* const symbol : cSymbols) {
        if (!names.contains(symbol))
            return fmt::format("it does not define {}", symbol);
    }
    return "";
}
