#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "COperation.h"

// Operations made of bytes, done to the library and to the model, which are compared after each.
// Operations that the rules make fatal or endless are left out.
class CSequence {
public:
    // Eight bytes an operation or a row; what is left over at the end is not used.
    explicit CSequence(std::span<const std::uint8_t> bytes);

    // Empty when the two sides agree throughout; else what was done and the first difference. The
    // working directory must hold nothing called "files", and it is left so.
    std::string Run();

    // Of a sequence that fails, one that still fails and of which nothing can be left out.
    CSequence Shrunk() const;

    // What the last run did, which is also what the one in progress has done so far.
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
