#include "host/startup/StartupMemory.h"

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

// Releases the read-only segments of an object. Their pages hold nothing but the content of the
// file.
static int ReleaseConstants(dl_phdr_info* object, std::size_t /*size*/, void* /*context*/) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    for (int index = 0; index < object->dlpi_phnum; ++index) {
        const auto& segment = object->dlpi_phdr[index];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0)
            continue;
        const std::uintptr_t address = object->dlpi_addr + segment.p_vaddr;
        const std::uintptr_t first = address / page * page;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the dynamic linker gives numbers
        madvise(reinterpret_cast<void*>(first), address + segment.p_memsz - first, MADV_DONTNEED);
    }
    return 0;
}

void ReleaseStartupMemory() {
    malloc_trim(0);
    dl_iterate_phdr(ReleaseConstants, nullptr);
}
