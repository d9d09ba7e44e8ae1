#include "cli/output/COutput.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "base/WriteAll.h"

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

// The first `columns` characters of a longer string, the last of them replaced by an ellipsis.
std::string CutTo(std::string_view string, std::size_t columns) {
    std::size_t end = 0;
    for (std::size_t count = 0; count + 1 < columns; ++count) {
        ++end;
        while (end < string.size() && (static_cast<unsigned char>(string[end]) & 0xc0U) == 0x80U)
            ++end;
    }
    return std::string(string.substr(0, end)) + "\u2026";
}

}  // namespace

COutput::COutput() : isTerminal(isatty(STDOUT_FILENO) != 0) {
    // Another program reads it then, which must get every column as a whole and no colours.
    if (!isTerminal)
        return;
    const char* const noColour = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    hasColours = (noColour == nullptr || *noColour == '\0') &&
                 (terminal == nullptr || std::string_view(terminal) != "dumb");
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        width = size.ws_col;
}

void COutput::Line(std::string_view line) {
    pending += line;
    pending += '\n';
}

void COutput::Raw(std::string_view bytes) {
    pending += bytes;
}

void COutput::Finish() {
    if (!WriteAllInTurn(STDOUT_FILENO, pending))
        throw SystemError("cannot write to standard output", errno);
    pending.clear();
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

void CColumns::Add(std::string_view content, EColour colour) {
    const std::size_t offset = contents.size();
    const std::size_t columns = AppendShown(content, contents);
    std::size_t& width = widths[cells.size() % widths.size()];
    width = std::max(width, columns);
    cells.push_back({static_cast<std::uint32_t>(contents.size() - offset),
                     static_cast<std::uint32_t>(columns), colour});
}

void CColumns::Print(COutput& output) const {
    constexpr std::size_t cLeast = 8;  // width of the last column on a narrow terminal
    // Write in blocks: the whole output in memory would need as much as the cells again.
    constexpr std::size_t cBlock = 1 << 16;
    std::string line;
    std::size_t used = 0;
    std::size_t offset = 0;
    for (std::size_t index = 0; index < cells.size(); ++index) {
        const TCell& cell = cells[index];
        const std::size_t column = index % widths.size();
        const std::string_view content = std::string_view(contents).substr(offset, cell.length);
        offset += cell.length;
        if (column + 1 < widths.size()) {
            output.AppendColoured(content, cell.colour, line);
            line.append(widths[column] - cell.columns + 2, ' ');
            used += widths[column] + 2;
            continue;
        }
        const std::size_t left = output.Width() == 0              ? cell.columns
                                 : output.Width() > used + cLeast ? output.Width() - used
                                                                  : cLeast;
        if (cell.columns <= left)
            output.AppendColoured(content, cell.colour, line);
        else
            output.AppendColoured(CutTo(content, left), cell.colour, line);
        line += '\n';
        output.Raw(line);
        line.clear();
        used = 0;
        if (output.Length() > cBlock)
            output.Finish();
    }
}

}  // namespace vxsched
