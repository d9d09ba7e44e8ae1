#pragma once

#include <string>

// Puts `bytes` in the place of the table of the working directory in one step; on a disk that is full
// over the former bytes, which needs no room where they are no more than these were. The caller keeps
// other writers out. Throws vxsched::CClientError when neither can be done; the table is then as it was.
void PutTable(const std::string& bytes);
