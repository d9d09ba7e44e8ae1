#include "TableFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <ostream>

#include "Process.h"

void PrintTo(const TRow& row, std::ostream* out) {
    *out << '{' << row.name << ", next " << row.next << ", last " << row.last << ", period "
         << row.period << ", \"" << row.program << "\", \"" << row.parameters << "\", paused "
         << row.paused << '}';
}

template <typename Integer>
static void Append(std::string& bytes, Integer value) {
    for (std::size_t index = 0; index < sizeof value; ++index)
        bytes += static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * index) & 0xFF);
}

static void AppendString(std::string& bytes, const std::string& value) {
    Append(bytes, static_cast<std::uint32_t>(value.size()));
    bytes += value;
}

std::string BytesOf(const TRows& rows) {
    std::string bytes;
    Append(bytes, static_cast<std::uint64_t>(rows.size()));
    for (const TRow& row : rows) {
        AppendString(bytes, row.name);
        Append(bytes, row.next);
        Append(bytes, row.last);
        Append(bytes, row.period);
        AppendString(bytes, row.program);
        AppendString(bytes, row.parameters);
        Append(bytes, row.paused);
    }
    return bytes;
}

void WriteTable(const TRows& rows) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, BytesOf(rows));
}

namespace {

class CReader {
public:
    explicit CReader(std::string content) : bytes(std::move(content)) {}

    template <typename Integer>
    void Take(Integer& value) {
        const std::string part = TakeBytes(sizeof value);
        std::memcpy(&value, part.data(), part.size());
    }
    void Take(std::string& text) {
        std::uint32_t length = 0;
        Take(length);
        text = TakeBytes(length);
    }
    bool valid = true;
    bool AtEnd() const { return position == bytes.size(); }

private:
    std::string TakeBytes(std::size_t length) {
        if (bytes.size() - position < length) {
            valid = false;
            length = 0;
        }
        position += length;
        return bytes.substr(position - length, length);
    }
    std::string bytes;
    std::size_t position = 0;
};

}  // namespace

TRows ReadTable() {
    CReader reader(ReadFile(cTable));
    std::uint64_t count = 0;
    reader.Take(count);
    TRows rows;
    while (reader.valid && rows.size() < count) {
        TRow row;
        reader.Take(row.name);
        reader.Take(row.next);
        reader.Take(row.last);
        reader.Take(row.period);
        reader.Take(row.program);
        reader.Take(row.parameters);
        reader.Take(row.paused);
        rows.push_back(row);
    }
    EXPECT_TRUE(reader.valid && reader.AtEnd()) << cTable << " is not a table";
    return rows;
}

std::string NamesInTable() {
    std::string names;
    for (const TRow& row : ReadTable())
        names += (names.empty() ? "" : " ") + row.name;
    return names;
}

std::string QuarantinedFile() {
    for (const auto& entry : std::filesystem::directory_iterator("files")) {
        if (entry.path().filename().string().starts_with("scheduler.dat.damaged-"))
            return entry.path();
    }
    return "";
}
