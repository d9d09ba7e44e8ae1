#pragma once

#include <TableFile.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CSide.h"

// What a sequence and its outcome are printed as.

// In quotes, what cannot be printed escaped and the middle of a long text left out.
std::string Quoted(const std::string& text);

std::string Worded(const std::optional<std::string>& text);  // "null" for none
std::string Worded(bool answer);
std::string Worded(std::int64_t value);
std::string Worded(const TRow& row);
std::string Worded(const TRows& rows);
std::string Worded(const TPlace& place);
std::string Worded(const std::vector<std::string>& happened);
