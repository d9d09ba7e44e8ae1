#pragma once

#include <string>

#include "crontab/ReadCrontab.h"

namespace vxsched {

// A name for the task of a job: its comment, or else the program in its command. The same for the same
// job; not unique. Never empty.
std::string NameOf(const TCrontabJob& job);

}  // namespace vxsched
