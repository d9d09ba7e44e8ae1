#include "host/startup/AddInFile.h"

#include <fmt/format.h>

#include <array>
#include <cstring>
#include <optional>
#include <system_error>

#include "base/DynamicSymbols.h"
#include "store/TableSaves.h"

// What the host looks up in the loaded library.
static constexpr std::array<const char*, 3> cSymbols = {"CreateAddIn", "DestroyAddIn", "gTaskList"};

std::string WhyNotAnAddIn(const std::string& path) {
    std::optional<TDynamicSymbols> symbols;
    try {
        symbols = ReadDynamicSymbols(path);
    } catch (const std::system_error& error) {
        return fmt::format("cannot read the file: {}", std::strerror(error.code().value()));
    }
    if (!symbols)
        return "it is not a shared library for x86-64";
    for (const char* const symbol : cSymbols) {
        if (!symbols->defined.contains(symbol))
            return fmt::format("it does not define {}", symbol);
    }
    return "";
}

std::string WhyAddInIsRefused(const std::string& path) {
    if (path.find('/') != std::string::npos) {
        if (const std::string reason = WhyNotAnAddIn(path); !reason.empty())
            return fmt::format("{} is not an add-in: {}. Choose another library with --addin.",
                               path, reason);
    }
    if (const std::string reason = vxsched::WhySavesAreNotInOneStep(path); !reason.empty())
        return fmt::format(
            "the add-in {} is refused, since a save that is interrupted would lose "
            "tasks: {}. Run vxschedd without another support library (LD_PRELOAD), "
            "or choose another add-in with --addin.",
            path, reason);
    return "";
}
