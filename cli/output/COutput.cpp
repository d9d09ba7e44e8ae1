#include "cli/output/COutput.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <vxsched/Error.h>
#include "base/DisplayText.h"

namespace vxsched {

namespace {

const char* CodeOf(EColour colour) {
    switch (colour) {
        case EColour::cBold:
            return "1";
        case EColour::cDim:
            return "2";
        case EColour::cRed:
            return "31";
        case EColour::cGreen:
            return "32";
        case EColour::cYellow:
            return "33";
        case EColour::cPlain:
            break;
    }
    return "";
}

// The first `columns` characters of more than those; the last of them becomes an ellipsis.
std::string CutTo(std::string_view text, std::size_t columns) {
    std::size_t end = 0;
    for (std::size_t count = 0; count + 1 < columns; ++count) {
        ++end;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U)
            ++end;
    }
    return std::string(text.substr(0, end)) + "\u2026";
}

}  // namespace

COutput::COutput() {
    if (isatty(STDOUT_FILENO) == 0)
        return;
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    hasColours = (refused == nullptr || *refused == '\0') &&
                 (terminal == nullptr || std::string_view(terminal) != "dumb");
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        width = size.ws_col;
}

void COutput::Line(std::string_view line) {
    text += line;
    text += '\n';
}

void COutput::Raw(std::string_view bytes) {
    text += bytes;
}

void COutput::Finish() {
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t count = write(STDOUT_FILENO, rest.data(), rest.size());
        if (count > 0)
            rest.remove_prefix(static_cast<std::size_t>(count));
        else if (errno != EINTR)
            throw SystemError("cannot write to standard output", errno);
    }
    text.clear();
}

std::string COutput::Coloured(std::string_view part, EColour colour) const {
    std::string coloured;
    AppendColoured(part, colour, coloured);
    return coloured;
}

void COutput::AppendColoured(std::string_view part, EColour colour, std::string& to) const {
    if (!hasColours || colour == EColour::cPlain) {
        to += part;
        return;
    }
    to += "\033[";
    to += CodeOf(colour);
    to += 'm';
    to += part;
    to += "\033[0m";
}

CColumns::CColumns(std::initializer_list<std::string_view> headings) : widths(headings.size()) {
    for (const std::string_view heading : headings)
        Add(heading, EColour::cBold);
}

void CColumns::Add(std::string_view text, EColour colour) {
    const std::size_t start = texts.size();
    const std::size_t columns = AppendShown(text, texts);
    std::size_t& width = widths[cells.size() % widths.size()];
    width = std::max(width, columns);
    cells.push_back({static_cast<std::uint32_t>(texts.size() - start),
                     static_cast<std::uint32_t>(columns), colour});
}

void CColumns::Print(COutput& output) const {
    constexpr std::size_t cLeast = 8;  // columns for the last one, however narrow the terminal
    // What is written is not kept: that would take as much memory again.
    constexpr std::size_t cBlock = 1 << 16;
    std::string line;
    std::size_t used = 0;
    std::size_t start = 0;
    for (std::size_t index = 0; index < cells.size(); ++index) {
        const TCell& cell = cells[index];
        const std::size_t column = index % widths.size();
        const std::string_view text = std::string_view(texts).substr(start, cell.length);
        start += cell.length;
        if (column + 1 < widths.size()) {
            output.AppendColoured(text, cell.colour, line);
            line.append(widths[column] - cell.columns + 2, ' ');
            used += widths[column] + 2;
            continue;
        }
        const std::size_t left = output.Width() == 0              ? cell.columns
                                 : output.Width() > used + cLeast ? output.Width() - used
                                                                  : cLeast;
        if (cell.columns <= left)
            output.AppendColoured(text, cell.colour, line);
        else
            output.AppendColoured(CutTo(text, left), cell.colour, line);
        line += '\n';
        output.Raw(line);
        line.clear();
        used = 0;
        if (output.Length() > cBlock)
            output.Finish();
    }
}

}  // namespace vxsched
