#pragma once

#include <string>

void VXC_SetInformation(std::string name, int value);
