#pragma once

#include <string>

#include "runs/RunRecord.h"

// The message about the end of a run, for `sendmail -t`, with the last lines of its output: nothing in a
// record makes a header of its own. The store is the working directory. Blocks for disk access only.
std::string MailAbout(const TRunRecord& run, const std::string& address, bool isRecovery);
