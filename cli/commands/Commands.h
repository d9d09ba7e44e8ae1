#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Store.h>
#include "cli/output/COutput.h"
#include "cli/time/TimeFormat.h"

namespace vxsched {

// What holds for every command.
struct TCommon {
    TStoreOptions store;
    EZone zone = EZone::cLocal;
    bool json = false;
    bool dryRun = false;
    TForced forced = {};
};

// The commands. Each prints to `output`, which the caller finishes, and returns the exit status; what
// is wrong is thrown: CError, CParseError, or CUsageError.

class CUsageError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

int List(const TCommon& common, bool namesOnly, COutput& output);
int ShowTask(const TCommon& common, const std::string& name, COutput& output);

// Without a count, 10, or all of them when an end is named.
int Next(const TCommon& common, std::optional<std::size_t> count, const std::string& until,
         COutput& output);

// The last runs, the youngest last; 20 without a count, and of all tasks without a name.
int History(const TCommon& common, const std::string& name, std::optional<std::size_t> count,
            bool failedOnly, COutput& output);
int Status(const TCommon& common, COutput& output);
int CheckTable(const TCommon& common, const std::string& file, COutput& output);
int Repair(const TCommon& common, COutput& output);
int Export(const TCommon& common, COutput& output);

enum class EImport { cAdd, cMerge, cReplace };
int Import(const TCommon& common, const std::string& file, EImport how, COutput& output);

// Texts as they were typed.
struct TTaskArguments {
    std::string name;
    std::optional<std::string> at = {};
    std::optional<std::string> every = {};
    std::optional<std::string> program = {};
    std::optional<std::string> parameter = {};
};
int Create(const TCommon& common, const TTaskArguments& task, bool replace, COutput& output);
int Edit(const TCommon& common, const TTaskArguments& task, COutput& output);

using TNames = std::vector<std::string>;
int Remove(const TCommon& common, const TNames& names, COutput& output);
int Pause(const TCommon& common, const TNames& names, COutput& output);
int Resume(const TCommon& common, const TNames& names, COutput& output);
int SetPeriod(const TCommon& common, const std::string& name, const std::string& every,
              COutput& output);
int Run(const TCommon& common, const std::string& name, bool force, bool wait, COutput& output);
int Wake(const TCommon& common, COutput& output);

int PrintCompletion(const std::string& shell, COutput& output);

}  // namespace vxsched
