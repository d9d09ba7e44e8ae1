#include "jobs/Job.h"

namespace vxsched {

std::vector<std::string> CommandOf(const TJob& job) {
    return job.shell ? std::vector<std::string>{"/bin/sh", "-c", *job.shell} : job.command;
}

}  // namespace vxsched
