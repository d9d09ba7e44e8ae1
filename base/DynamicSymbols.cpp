#include "base/DynamicSymbols.h"

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "base/CDescriptor.h"
#include "base/RegularFile.h"

namespace {

// The bytes of a library. Reads beyond their end fail; a damaged library must not crash the reader.
class CLibraryFile {
public:
    explicit CLibraryFile(const std::string& path)
        : descriptor(OpenRegularFile(path.c_str(), O_RDONLY)) {
        struct stat status {};
        if (!descriptor.IsOpen() || fstat(descriptor.Get(), &status) == -1)
            throw std::system_error(errno, std::generic_category());
        fileSize = static_cast<std::uint64_t>(status.st_size);
    }

    // `size` bytes at `offset`; empty if they are not within the file.
    std::string Bytes(std::uint64_t offset, std::uint64_t size) const {
        if (offset > fileSize || size > fileSize - offset)
            return "";
        std::string bytes(size, '\0');
        for (std::uint64_t done = 0; done < size;) {
            const ssize_t count = pread(descriptor.Get(), bytes.data() + done, size - done,
                                        static_cast<off_t>(offset + done));
            if (count > 0)
                done += static_cast<std::uint64_t>(count);
            else if (count == 0)
                return "";  // the file was truncated meanwhile
            else if (errno != EINTR)
                throw std::system_error(errno, std::generic_category());
        }
        return bytes;
    }

    template <typename Record>
    bool Read(std::uint64_t offset, Record& record) const {
        return CopyRecord(Bytes(offset, sizeof record), 0, record);
    }

    template <typename Record>
    static bool CopyRecord(const std::string& bytes, std::size_t offset, Record& record) {
        if (offset > bytes.size() || bytes.size() - offset < sizeof record)
            return false;
        std::memcpy(&record, bytes.data() + offset, sizeof record);
        return true;
    }

private:
    CDescriptor descriptor;
    std::uint64_t fileSize = 0;
};

bool IsLibraryOfThisMachine(const CLibraryFile& file, Elf64_Ehdr& header) {
    return file.Read(0, header) && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
           header.e_machine == EM_X86_64 && header.e_type == ET_DYN;
}

// The zero-terminated string at `offset`; empty if it is not within the table.
std::string StringAt(const std::string& strings, std::size_t offset) {
    const std::size_t end = offset < strings.size() ? strings.find('\0', offset) : offset;
    return end >= strings.size() ? "" : strings.substr(offset, end - offset);
}

void AddSymbols(const CLibraryFile& file, const Elf64_Shdr& section, const Elf64_Shdr& names,
                TDynamicSymbols& result) {
    const std::string symbols = file.Bytes(section.sh_offset, section.sh_size);
    const std::string strings = file.Bytes(names.sh_offset, names.sh_size);
    Elf64_Sym symbol{};
    for (std::size_t position = 0; CLibraryFile::CopyRecord(symbols, position, symbol);
         position += sizeof symbol) {
        auto& kind = symbol.st_shndx == SHN_UNDEF ? result.undefined : result.defined;
        if (std::string name = StringAt(strings, symbol.st_name); !name.empty())
            kind.insert(std::move(name));
    }
}

}  // namespace

std::optional<TDynamicSymbols> ReadDynamicSymbols(const std::string& path) {
    const CLibraryFile file(path);
    Elf64_Ehdr header{};
    if (!IsLibraryOfThisMachine(file, header))
        return std::nullopt;
    TDynamicSymbols result;
    for (unsigned int index = 0; index < header.e_shnum; ++index) {
        Elf64_Shdr section{};
        Elf64_Shdr names{};
        if (file.Read(header.e_shoff + std::uint64_t{index} * sizeof section, section) &&
            section.sh_type == SHT_DYNSYM &&
            file.Read(header.e_shoff + std::uint64_t{section.sh_link} * sizeof names, names))
            AddSymbols(file, section, names, result);
    }
    return result;
}
