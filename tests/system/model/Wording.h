#pragma once

#include <TableFile.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CSide.h"

// Formats a sequence and its outcome for a failure message.

// In quotes, with unprintable characters escaped and the middle of a long string left out.
std::string Quoted(const std::string& value);

std::string Worded(const std::optional<std::string>& value);  // "null" for none
std::string Worded(bool answer);
std::string Worded(std::int64_t value);
std::string Worded(const TRow& row);
std::string Worded(const TRows& rows);
std::string Worded(const TPlace& place);
std::string Worded(const std::vector<std::string>& happened);
