#pragma once

#include <string>

// Why the file at `path` cannot be the add-in's library, by its bytes alone; empty when it is a shared
// library for this machine that defines every entry point. It is not loaded, since a load has effects;
// so whether its own libraries can be found is not looked at.
std::string WhyNotAnAddIn(const std::string& path);
