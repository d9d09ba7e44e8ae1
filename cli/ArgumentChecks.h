#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vxsched {

// Checks of arguments for the parser: each returns what is wrong, for a person; empty if nothing is. The
// parser's own ones have a wording of their own, as "Value x not in range".

std::string CheckLockTimeout(const std::string& argument);

std::string CheckNumber(const std::string& argument);

// A check for one of these words, of which there are two or more.
std::function<std::string(const std::string&)> OneOf(std::vector<std::string> words);

}  // namespace vxsched
