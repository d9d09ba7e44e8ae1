#pragma once

namespace VXC_File {

void VXC_StripPathUrl(const char* path, char* directory, char* name, char* extension);

}  // namespace VXC_File
