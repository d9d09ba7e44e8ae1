#pragma once

#include <vxsched/Table.h>

// From when to when a host was up. It was that host's job to launch what came due in between.
struct TUptime {
    vxsched::TTime since;
    vxsched::TTime until;
};
