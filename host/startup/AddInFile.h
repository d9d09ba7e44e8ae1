#pragma once

#include <string>

// Returns why the file at `path` cannot be the add-in's library; empty if it is a shared library
// for this machine that defines every symbol that the host needs. Reads the file and does not load
// it, since a load has effects. So it does not notice when a library that the add-in depends on is
// missing.
std::string WhyNotAnAddIn(const std::string& path);

// Returns the message about an add-in that this host must not load: its file is not one, or its
// saves would not be made in one step in this process. Empty if it may be loaded. A name without a
// directory, for which the dynamic linker searches, is checked as far as that goes without a load.
std::string WhyAddInIsRefused(const std::string& path);
