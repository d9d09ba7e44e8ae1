#include "runner/Mail.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "base/Duration.h"
#include "base/IsoTime.h"
#include "base/SignalName.h"
#include "runs/COutputReader.h"

using vxsched::Show;

static constexpr std::size_t cMostLines = 100;
static constexpr std::size_t cLongestLine = 900;     // bytes; mail has 998
static constexpr std::size_t cLongestSubject = 300;  // bytes
static constexpr std::size_t cLongestWord = 45;      // bytes of an encoded word: 60 when encoded

// The number of bytes at the begin of a UTF-8 string, up to a limit, that do not end within a character.
static std::size_t WholeCharacters(std::string_view text, std::size_t most) {
    if (text.size() <= most)
        return text.size();
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0U) == 0x80U)
        --most;
    return most;
}

static std::string Base64(std::string_view bytes) {
    constexpr std::string_view cDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (std::size_t begin = 0; begin < bytes.size(); begin += 3) {
        const std::string_view group = bytes.substr(begin, 3);
        std::uint32_t bits = 0;
        for (std::size_t byte = 0; byte < 3; ++byte)
            bits =
                bits << 8U | (byte < group.size() ? static_cast<unsigned char>(group[byte]) : 0U);
        for (std::size_t digit = 0; digit < 4; ++digit)
            encoded += digit <= group.size() ? cDigits[bits >> (18 - 6 * digit) & 63U] : '=';
    }
    return encoded;
}

// The value of a header, in encoded words unless it is short and of plain characters.
static std::string HeaderText(const std::string& text) {
    std::string shown = Show(text).string;
    shown.resize(WholeCharacters(shown, cLongestSubject));
    const bool isPlain =
        std::all_of(shown.begin(), shown.end(), [](char one) { return one >= ' ' && one <= '~'; });
    if (isPlain && shown.size() <= cLongestWord && shown.find("=?") == std::string::npos)
        return shown;
    std::string words;
    for (std::string_view rest = shown; !rest.empty();) {
        const std::size_t size = WholeCharacters(rest, cLongestWord);
        words += fmt::format("{}=?UTF-8?B?{}?=", words.empty() ? "" : "\n ",
                             Base64(rest.substr(0, size)));
        rest.remove_prefix(size);
    }
    return words;
}

static std::string OutcomeOf(const TRunRecord& run, bool isRecovery) {
    if (isRecovery)
        return "has succeeded again";
    if (run.timeLimit)
        return fmt::format("has exceeded its time limit of {}",
                           vxsched::FormatDuration(*run.timeLimit));
    if (run.outcome == TRunRecord::cNotStarted)
        return "was not started";
    if (run.outcome == TRunRecord::cKilled)
        return fmt::format("was killed by {}", SignalName(run.number));
    return fmt::format("has failed with status {}", run.number);
}

// The last lines; what is longer than a line of a mail continues in the next one.
static std::vector<std::string> LastLines(const std::string& output) {
    std::vector<std::string_view> lines;
    std::string_view rest = output;
    while (!rest.empty() && lines.size() < cMostLines) {
        const std::string_view whole = rest.substr(0, rest.size() - (rest.back() == '\n' ? 1 : 0));
        const std::size_t begin = whole.rfind('\n') + 1;  // 0 in the first line
        lines.push_back(whole.substr(begin));
        rest = rest.substr(0, begin);
    }
    std::vector<std::string> shown;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        const std::string safe = Show(*line).string;
        std::string_view left = safe;
        do {
            const std::size_t size = WholeCharacters(left, cLongestLine);
            shown.emplace_back(left.substr(0, size));
            left.remove_prefix(size);
        } while (!left.empty());
    }
    return shown;
}

static std::string ReadOutput(const TRunRecord& run) {
    std::string output;
    try {
        vxsched::COutputReader reader(run.output);
        for (std::string part; !(part = reader.Next(run.outputBytes)).empty();)
            output += part;
    } catch (const vxsched::CError&) {
        // It was not kept.
    }
    return output;
}

static std::string Machine() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? Show(name.data()).string : "?";
}

std::string MailAbout(const TRunRecord& run, const std::string& address, bool isRecovery) {
    const std::string task = run.task.value_or("?");
    const std::string outcome = OutcomeOf(run, isRecovery);
    std::string mail = fmt::format("To: {}\nSubject: {}\n", Show(address).string,
                                   HeaderText(task + ' ' + outcome));
    mail +=
        "Auto-Submitted: auto-generated\nMIME-Version: 1.0\n"
        "Content-Type: text/plain; charset=UTF-8\nContent-Transfer-Encoding: 8bit\n\n";
    const auto add = [&](std::string_view name, const std::string& value) {
        for (const std::string& line : LastLines(value))
            mail += fmt::format("{:<9}{}\n", name, line);
    };
    add("Task", task);
    add("Outcome", outcome);
    add("Error", run.error);
    if (run.due)
        add("Due", UtcTime(*run.due));
    if (run.started)
        add("Started", UtcTime(*run.started));
    if (run.ended)
        add("Ended", UtcTime(*run.ended));
    add("Run", fmt::format("{}, attempt {}", run.id, run.attempt));
    add("Machine", Machine());
    const std::vector<std::string> lines = LastLines(ReadOutput(run));
    mail += lines.empty() ? "\nThere is no output.\n" : "\nThe end of its output:\n\n";
    for (const std::string& line : lines)
        mail += line + '\n';
    return mail;
}
