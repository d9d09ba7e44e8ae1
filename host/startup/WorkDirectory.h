#pragma once

#include <string>
#include <vector>

// Makes `directory` the working directory, and "files" in it if need be. Throws CHostError
// (cNoDirectory) when it cannot be worked in.
void EnterDirectory(const std::string& directory);

// What keeps a host from working in `directory`, each with what to do; empty when nothing does.
// Changes nothing.
std::vector<std::string> WhyNotToWorkIn(const std::string& directory);
