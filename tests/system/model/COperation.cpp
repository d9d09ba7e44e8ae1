#include "COperation.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "Wording.h"

using namespace std::string_literals;

static const char* Pointer(const TOptionalString& value) {
    return value ? value->c_str() : nullptr;
}

// ---- The exported functions and the add-in object -----------------------------------------------

static COperation Create(CChoices& choices) {
    const TOptionalString name = choices.Name();
    const std::int64_t due = choices.Time();
    const std::uint32_t period = choices.Period();
    const TOptionalString program = choices.Program();
    const TOptionalString parameters = choices.Parameters();
    return {"CreateTask(" + Worded(name) + ", " + std::to_string(due) + ", " +
                std::to_string(period) + ", " + Worded(program) + ", " + Worded(parameters) + ")",
            [=](CSide& side) {
                side.CreateTask(Pointer(name), due, period, Pointer(program), Pointer(parameters));
                return ""s;
            }};
}

static COperation OfName(const char* function, const TOptionalString& name,
                         void (CSide::*call)(const char*)) {
    return {function + "("s + Worded(name) + ")", [=](CSide& side) {
                (side.*call)(Pointer(name));
                return ""s;
            }};
}

static COperation OfName(const char* function, const TOptionalString& name,
                         bool (CSide::*call)(const char*)) {
    return {function + "("s + Worded(name) + ")",
            [=](CSide& side) { return Worded((side.*call)(Pointer(name))); }};
}

static COperation OfName(const char* function, const TOptionalString& name,
                         void (CSide::*call)(const char*, long*)) {
    return {function + "("s + Worded(name) + ")", [=](CSide& side) {
                long time = 4711;
                (side.*call)(Pointer(name), &time);
                return std::to_string(time);
            }};
}

static COperation Destroy(CChoices& choices) {
    return OfName("DestroyTask", choices.Name(), &CSide::DestroyTask);
}

static COperation Pause(CChoices& choices) {
    return OfName("PauseTask", choices.Name(), &CSide::PauseTask);
}

static COperation Resume(CChoices& choices) {
    return OfName("ResumeTask", choices.Name(), &CSide::ResumeTask);
}

static COperation SetPeriod(CChoices& choices) {
    const TOptionalString name = choices.Name();
    const std::uint32_t period = choices.Period();
    return {"SetTaskPeriod(" + Worded(name) + ", " + std::to_string(period) + ")",
            [=](CSide& side) { return Worded(side.SetTaskPeriod(Pointer(name), period)); }};
}

static COperation ExecuteNow(CChoices& choices) {
    const TOptionalString name = choices.Name();
    const bool force = choices.Below(2) == 0;
    return {"ExecuteTaskNow(" + Worded(name) + ", " + Worded(force) + ")", [=](CSide& side) {
                side.ExecuteTaskNow(Pointer(name), force);
                return ""s;
            }};
}

static COperation Query(CChoices& choices) {
    const TOptionalString name = choices.Name();
    switch (choices.Below(4)) {
        case 0:
            return OfName("IsScheduled", name, &CSide::IsScheduled);
        case 1:
            return OfName("GetNextExecution", name, &CSide::GetNextExecution);
        case 2:
            return OfName("GetLastExecuted", name, &CSide::GetLastExecuted);
        default:
            return {"GetTaskPeriod(" + Worded(name) + ")", [=](CSide& side) {
                        unsigned int period = 4711;
                        const bool found = side.GetTaskPeriod(Pointer(name), &period);
                        return Worded(found) + ", " + std::to_string(period);
                    }};
    }
}

static COperation AskRunning(CChoices& choices) {
    return OfName("IsTaskRunning", choices.Name(), &CSide::IsTaskRunning);
}

static COperation Plain(const char* description, void (CSide::*call)()) {
    return {description, [=](CSide& side) {
                (side.*call)();
                return ""s;
            }};
}

COperation COperation::Reload() {
    return Plain("the library is loaded anew", &CSide::Reload);
}

static COperation Tick(CChoices& /*choices*/) {
    return Plain("tick", &CSide::Tick);
}

static COperation Object(CChoices& choices) {
    switch (choices.Below(5)) {
        case 0:
            return Plain("Load() of the add-in", &CSide::Load);
        case 1:
            return Plain("Unload() of the add-in", &CSide::Unload);
        case 2:
            return Plain("the add-in is destroyed and created again", &CSide::Rebuild);
        case 3:
            return {"isLoad() after calls that change nothing",
                    [](CSide& side) { return Worded(side.IsLoad()); }};
        default:
            return COperation::Reload();
    }
}

// ---- The file -----------------------------------------------------------------------------------

static COperation PutRows(const std::string& what, const TRows& rows, const std::string& trailing,
                          bool signals) {
    return {what + (signals ? " and signals" : "") + Worded(rows), [=](CSide& side) {
                side.PutTable(rows, trailing);
                if (signals)
                    side.SetSignalled(true);
                return ""s;
            }};
}

static COperation PutTable(CChoices& choices) {
    const bool signals = choices.Below(3) != 0;
    const std::string trailing = choices.OneIn(16) ? "trailing" : "";
    return PutRows(
        "another process writes a table" + (trailing.empty() ? "" : " with trailing bytes"s),
        choices.Rows(choices.Below(5)), trailing, signals);
}

static COperation AddRow(CChoices& choices) {
    const bool signals = choices.Below(3) != 0;
    TRows rows = choices.Model().Table();
    const TRows added = choices.Rows(1);
    rows.insert(rows.end(), added.begin(), added.end());
    return PutRows("another process adds a row", rows, "", signals);
}

static COperation Damage(CChoices& choices) {
    TRows rows = choices.Model().Table();
    if (rows.empty())
        rows.emplace_back();
    std::string bytes = BytesOf(rows);
    std::string description = "the file's count is too large";
    if (choices.Below(2) == 0) {
        ++bytes[choices.Below(8)];
    } else {
        description = "the file's first string is too long";
        bytes[8 + choices.Below(4)] = '\x7f';
        bytes[9] = '\x7f';
        bytes[10] = '\x7f';
    }
    return {description, [=](CSide& side) {
                side.PutDamaged(bytes);
                return ""s;
            }};
}

static COperation Cut(CChoices& choices) {
    const std::size_t bytes = choices.OneIn(4) ? 1'000'000 : 1 + choices.Below(200);
    return {"the file loses its last " + std::to_string(bytes) + " bytes", [=](CSide& side) {
                side.CutFile(bytes);
                return ""s;
            }};
}

static COperation PutOther(CChoices& choices) {
    static constexpr std::pair<TPlace::TKind, const char*> cPlaces[] = {
        {TPlace::cNothing, "the file is deleted, its directory stays"},
        {TPlace::cNoDirectory, "the directory is removed"},
        {TPlace::cDirectory, "a directory is in the file's place"},
    };
    const auto [kind, description] = choices.Of(cPlaces);
    return {description, [place = kind](CSide& side) {
                side.PutOther(place);
                return ""s;
            }};
}

static COperation LimitRoom(CChoices& choices) {
    std::optional<std::size_t> bytes;
    if (choices.Below(2) == 0)
        bytes = choices.Below(256);
    return {bytes ? "a file can be written to " + std::to_string(*bytes) + " bytes"
                  : "a file can be written to any length",
            [=](CSide& side) {
                side.SetRoom(bytes);
                return ""s;
            }};
}

// ---- The environment ----------------------------------------------------------------------------

COperation COperation::SetClock(std::int64_t time) {
    return {"the clock is set to " + std::to_string(time), [=](CSide& side) {
                side.SetClock(time);
                return ""s;
            }};
}

static constexpr std::int64_t cDay = 86'400;
static constexpr std::int64_t cMoves[] = {1, 2, 60, 100, 3600, 3598, cDay, 365 * cDay};

// No sum of one of them and a period leaves the range.
static constexpr std::int64_t cClocks[] = {
    1'700'000'000, 1'700'000'000, 0, -7200, 1L << 32, INT64_MAX / 2, INT64_MIN / 2,
};

static COperation MoveClock(CChoices& choices) {
    const std::int64_t move = choices.Of(cMoves);
    return COperation::SetClock(choices.Model().Clock() + (choices.Below(4) == 0 ? -move : move));
}

static COperation JumpClock(CChoices& choices) {
    return COperation::SetClock(choices.Of(cClocks));
}

// To the second at which a task of the file is due, or one second before or after it.
static COperation ClockToTask(CChoices& choices) {
    const TRows& rows = choices.Model().Table();
    const std::int64_t next = rows.empty() ? 0 : rows[choices.Below(rows.size())].next;
    const std::int64_t difference = static_cast<std::int64_t>(choices.Below(3)) - 1;
    return COperation::SetClock(std::clamp(next, INT64_MIN / 2, INT64_MAX / 2) + difference);
}

static COperation Signal(CChoices& choices) {
    const bool signalled = choices.Below(4) != 0;
    return {signalled ? "the event is signalled" : "the event is reset", [=](CSide& side) {
                side.SetSignalled(signalled);
                return ""s;
            }};
}

static COperation ChooseThread(CChoices& choices) {
    const bool second = choices.Below(2) == 0;
    return {second ? "calls come from the second thread" : "calls come from the first thread",
            [=](CSide& side) {
                side.UseThread(second);
                return ""s;
            }};
}

static COperation SetLaunches(CChoices& choices) {
    std::vector<TLaunchOutcome> outcomes;
    std::string description = "launches, in turn:";
    for (std::size_t count = 1 + choices.Below(3); count > 0; --count) {
        const std::size_t bits = choices.Below(256);
        const TLaunchOutcome how{.fails = (bits & 1) != 0,
                                 .ended = (bits & 2) != 0,
                                 .signals = (bits & 12) == 12,
                                 .deletes = (bits & 0x30) == 0x30,
                                 .loads = (bits & 0xC0) == 0xC0};
        outcomes.push_back(how);
        description += how.fails ? " fails" : how.ended ? " ended at once" : " still running";
        description += how.signals ? ", signals" : "";
        description += how.deletes ? ", deletes the file" : "";
        description += how.loads ? ", loads elsewhere" : "";
        description += count > 1 ? ";" : "";
    }
    return {description, [=](CSide& side) {
                side.SetLaunches(outcomes);
                return ""s;
            }};
}

static COperation SetListing(CChoices& choices) {
    const std::string program = choices.Program().value_or("");
    std::optional<std::string> listing;
    switch (choices.Below(6)) {
        case 0:
            break;
        case 1:
            listing = "";
            break;
        case 2:
            listing = "before\0"s + program;
            break;
        case 3:
            listing = "  1 ?  00:00:00 " + program + ".bin\n";
            break;
        default: {
            // Around the end of the part that is searched.
            const std::size_t length = 1020 + choices.Below(8);
            listing = std::string(length - std::min(length, program.size()), '-') + program + '\n';
        }
    }
    return {"the probe " + (listing ? "prints " + Quoted(*listing) : "cannot be opened"),
            [=](CSide& side) {
                side.SetListing(listing);
                return ""s;
            }};
}

static COperation SetLogFails(CChoices& choices) {
    const bool fails = choices.Below(2) == 0;
    return {fails ? "the log fails" : "the log works", [=](CSide& side) {
                side.SetLogFails(fails);
                return ""s;
            }};
}

static COperation TouchSemaphore(CChoices& choices) {
    if (choices.Below(2) == 0)
        return Plain("another process removes the semaphore", &CSide::RemoveSemaphore);
    return Plain("another process loads the library", &CSide::LoadElsewhere);
}

// ---- Records ------------------------------------------------------------------------------------

static const struct {
    std::size_t weight;
    COperation (*make)(CChoices& choices);
} cKinds[] = {
    {28, Create},      {8, Destroy},     {9, Pause},      {12, Resume},     {16, SetPeriod},
    {16, ExecuteNow},  {18, Query},      {9, AskRunning}, {40, Tick},       {7, Object},
    {16, PutTable},    {5, AddRow},      {3, Damage},     {4, Cut},         {4, PutOther},
    {4, LimitRoom},    {14, MoveClock},  {3, JumpClock},  {8, ClockToTask}, {6, Signal},
    {6, ChooseThread}, {9, SetLaunches}, {6, SetListing}, {3, SetLogFails}, {2, TouchSemaphore},
};

COperation COperation::From(std::span<const TRecord>& records, const CModel& model) {
    CChoices choices(records, model);
    std::size_t choice = choices.Below(256);
    for (const auto& kind : cKinds) {
        if (choice < kind.weight)
            return kind.make(choices);
        choice -= kind.weight;
    }
    return Tick(choices);
}

COperation COperation::PlaceFrom(std::span<const TRecord>& records, const CModel& model) {
    CChoices choices(records, model);
    switch (choices.Below(16)) {
        case 15:
            return Damage(choices);
        case 14:
            return PutOther(choices);
        default:
            return PutTable(choices);
    }
}

std::string COperation::DoTo(CSide& side) const {
    try {
        return act(side);
    } catch (const CSide::TLogFailure&) {
        return "threw";
    }
}
