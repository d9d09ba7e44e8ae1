#pragma once

#include <string>
#include <vector>

#include "host/HostOptions.h"

// Makes `directory` the working directory, and creates "files" in it if it is missing. Throws
// CHostError (cNoDirectory) when the directory or the table cannot be used: among others if somebody
// else may change what is in "files", or under the superuser the table.
void EnterDirectory(const std::string& directory, ENetwork network);

// Returns the reasons why a host cannot run in `directory`, each with what to do; empty if it can.
// Changes nothing.
std::vector<std::string> WhyNotToWorkIn(const std::string& directory, ENetwork network);

// A warning, with what to do, if other users may enter, read or write the directory: who may read a
// directory can lock it. A group to which all of the store is open is no such user. Empty otherwise.
std::string WarningOfAccess(const std::string& directory);
