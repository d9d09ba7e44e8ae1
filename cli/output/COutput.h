// Standard output of the command: a buffer, colours, and aligned columns.

#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

enum class EColour : std::uint8_t { cPlain, cBold, cDim, cRed, cGreen, cYellow };

// Buffers standard output until Finish() writes it. Colours it, and cuts columns to the terminal's
// width, only if it is a terminal. For one thread.
class COutput {
public:
    // Inspects standard output. The environment variables NO_COLOR and TERM=dumb turn colours off.
    COutput();

    // Append to the buffer, with and without a line end. Neither replaces control characters: use
    // Show() before.
    void Line(std::string_view line);
    void Raw(std::string_view bytes);

    // Writes the buffer; blocks while the reader of a pipe is slow. Throws CError on failure, and
    // keeps the buffer then.
    void Finish();

    bool IsTerminal() const { return isTerminal; }
    std::size_t Length() const { return pending.size(); }  // bytes in the buffer
    std::size_t Width() const { return width; }            // columns; 0: no limit

    // Return or append `part` in a colour, or as it is if there are no colours.
    std::string Coloured(std::string_view part, EColour colour) const;
    void AppendColoured(std::string_view part, EColour colour, std::string& to) const;

private:
    std::string pending;
    bool isTerminal = false;
    std::size_t width = 0;
    bool hasColours = false;
};

// The content of a cell without a value.
inline constexpr char cNoValue[] = "-";

// A table with aligned columns. The last column takes the remaining width of the terminal; what does
// not fit is cut off. Held in memory as a whole, since the widths depend on every row.
class CColumns {
public:
    explicit CColumns(std::initializer_list<std::string_view> headings);

    // Adds the next cell of the row; after a full row it begins another. Control characters and
    // bytes that are not UTF-8 are replaced as Show() does.
    void Add(std::string_view content, EColour colour = EColour::cPlain);

    // The number of rows without the headings.
    std::size_t Count() const { return cells.size() / widths.size() - 1; }

    // Appends the table to `output`, and writes it in blocks if it is long. Throws CError as
    // Finish().
    void Print(COutput& output) const;

private:
    struct TCell {
        std::uint32_t length;  // in bytes; the content begins where that of the previous cell ends
        std::uint32_t columns;
        EColour colour;
    };

    std::string contents;  // of all cells, one after the other
    std::vector<TCell> cells;
    std::vector<std::size_t> widths;  // of the columns
};

}  // namespace vxsched
