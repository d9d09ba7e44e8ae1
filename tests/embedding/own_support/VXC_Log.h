#pragma once

#include <string>

void VXC_LogMessage(std::string message);
