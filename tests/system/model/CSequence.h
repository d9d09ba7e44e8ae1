#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "COperation.h"

// Decodes bytes to operations and applies them to the library and to the model, which are compared
// after each. Operations that the rules make fatal or endless are skipped.
class CSequence {
public:
    // Eight bytes per operation or row; fewer at the end are ignored.
    explicit CSequence(std::span<const std::uint8_t> bytes);

    // Returns an empty string when the two sides agree throughout, otherwise the operations and the
    // first difference. The working directory must not contain "files", and does not afterwards.
    std::string Run();

    // Of a sequence that fails: a shorter one that still fails, and would not without any of its
    // records.
    CSequence Shrunk() const;

    // The operations of the last run, or so far of the one in progress.
    const std::string& Done() const { return done; }
    std::size_t DoneCount() const { return doneCount; }
    std::size_t LeftOutCount() const { return leftOutCount; }

private:
    std::string Do(const COperation& operation, CModel& model, CSide& world);

    std::vector<TRecord> records;
    std::string done;
    std::size_t doneCount = 0;
    std::size_t leftOutCount = 0;
};
