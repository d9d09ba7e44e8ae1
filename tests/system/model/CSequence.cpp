#include "CSequence.h"

#include <algorithm>

#include "CWorld.h"
#include "Wording.h"

static constexpr std::int64_t cInitialTime = 1'700'000'000;

static std::string Worded(const std::string& answer) {
    return answer;
}

template <typename Value>
static std::string Difference(const char* what, const Value& model, const Value& library) {
    if (model == library)
        return {};
    const auto worded = [](const Value& value) {
        const std::string words = Worded(value);
        return words.empty() ? "nothing" : words;
    };
    return what + ("\n    by the rules: " + worded(model)) +
           "\n    the library:  " + worded(library) + '\n';
}

static std::string Difference(const TSight& model, const TSight& library) {
    return Difference("what happened", model.happened, library.happened) +
           Difference("the list", model.list, library.list) +
           Difference("the file", model.place, library.place) +
           Difference("the event", model.signalled, library.signalled) +
           Difference<std::int64_t>("the semaphore", model.semaphore, library.semaphore) +
           Difference("the clock", model.clock, library.clock);
}

CSequence::CSequence(std::span<const std::uint8_t> bytes)
    : records(bytes.size() / sizeof(TRecord)) {
    for (TRecord& record : records) {
        std::copy_n(bytes.begin(), record.size(), record.begin());
        bytes = bytes.subspan(record.size());
    }
}

std::string CSequence::Do(const COperation& operation, CModel& model, CSide& world) {
    CModel after = model;
    std::string expected;
    try {
        expected = operation.DoTo(after);
    } catch (const CModel::TForbidden&) {
        ++leftOutCount;
        return {};
    }
    model = std::move(after);
    done += "    " + operation.Description() + '\n';
    ++doneCount;
    const std::string answer = operation.DoTo(world);
    return Difference("the answer", expected, answer) +
           Difference(model.Observe(), world.Observe());
}

std::string CSequence::Run() {
    done.clear();
    doneCount = 0;
    leftOutCount = 0;
    std::span<const TRecord> left = records;
    if (left.empty())
        return {};
    CModel model;
    CWorld world;
    const COperation setClock = COperation::SetClock(cInitialTime);
    setClock.DoTo(model);
    setClock.DoTo(world);
    const COperation place = COperation::PlaceFrom(left, model);
    place.DoTo(model);
    place.DoTo(world);
    done = "    " + setClock.Description() + "\n    " + place.Description() + '\n';
    std::string difference = Do(COperation::Reload(), model, world);
    if (leftOutCount > 0)
        return {};  // there is no library to do anything to
    while (difference.empty() && !left.empty())
        difference = Do(COperation::From(left, model), model, world);
    return difference.empty() ? difference : done + difference;
}

CSequence CSequence::Shrunk() const {
    CSequence shrunk = *this;
    for (std::size_t index = shrunk.records.size(); index-- > 0;) {
        CSequence shorter = shrunk;
        shorter.records.erase(shorter.records.begin() + static_cast<std::ptrdiff_t>(index));
        if (!shorter.Run().empty())
            shrunk = shorter;
    }
    return shrunk;
}
