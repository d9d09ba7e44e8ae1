#pragma once

#include <string>

// Returns why the file at `path` cannot be the add-in's library; empty if it is a shared library
// for this machine that defines every symbol that the host needs. Reads the file and does not load
// it, since a load has effects. So it does not notice when a library that the add-in depends on is
// missing.
std::string WhyNotAnAddIn(const std::string& path);
