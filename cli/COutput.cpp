#include "cli/COutput.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "cli/ShownText.h"
#include "client/CClientError.h"

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

// The first `columns` characters; the last of them becomes an ellipsis when something is cut off.
std::string CutTo(const TShown& shown, std::size_t columns) {
    if (shown.columns <= columns)
        return shown.text;
    std::size_t end = 0;
    for (std::size_t count = 0; count + 1 < columns; ++count) {
        ++end;
        while (end < shown.text.size() &&
               (static_cast<unsigned char>(shown.text[end]) & 0xc0U) == 0x80U)
            ++end;
    }
    return shown.text.substr(0, end) + "\u2026";
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
    if (!hasColours || colour == EColour::cPlain)
        return std::string(part);
    return std::string("\033[") + CodeOf(colour) + 'm' + std::string(part) + "\033[0m";
}

CColumns::CColumns(std::vector<std::string> headings) {
    std::vector<TCell> row;
    row.reserve(headings.size());
    for (std::string& heading : headings)
        row.push_back({std::move(heading), EColour::cBold});
    rows.push_back(std::move(row));
}

void CColumns::Add(std::vector<TCell> row) {
    rows.push_back(std::move(row));
}

void CColumns::Print(COutput& output) const {
    std::vector<std::size_t> widths(rows.front().size());
    std::vector<std::vector<TShown>> shown;
    shown.reserve(rows.size());
    for (const std::vector<TCell>& row : rows) {
        std::vector<TShown>& cells = shown.emplace_back();
        for (std::size_t column = 0; column < row.size(); ++column) {
            cells.push_back(Show(row[column].text));
            widths[column] = std::max(widths[column], cells.back().columns);
        }
    }
    constexpr std::size_t cLeast = 8;  // columns for the last one, however narrow the terminal
    for (std::size_t index = 0; index < rows.size(); ++index) {
        std::string line;
        std::size_t used = 0;
        const std::vector<TShown>& cells = shown[index];
        for (std::size_t column = 0; column + 1 < cells.size(); ++column) {
            line += output.Coloured(cells[column].text, rows[index][column].colour);
            line.append(widths[column] - cells[column].columns + 2, ' ');
            used += widths[column] + 2;
        }
        const std::size_t left = output.Width() == 0              ? cells.back().columns
                                 : output.Width() > used + cLeast ? output.Width() - used
                                                                  : cLeast;
        line += output.Coloured(CutTo(cells.back(), left), rows[index].back().colour);
        output.Line(line);
    }
}

}  // namespace vxsched
