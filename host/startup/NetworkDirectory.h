#pragma once

#include <string>

// Why a host does not work in a directory that is on a network file system, or whose "files" are, with what
// to do; empty if neither is, or if that cannot be found out. The directory lock may not reach hosts on
// other machines there: two of them would launch every task twice.
std::string WhyNotOnNetwork(const std::string& directory);
