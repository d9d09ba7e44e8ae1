#pragma once

#include <vxsched/Table.h>

// From when to when a host was up: what came due in between was its to launch.
struct TUptime {
    vxsched::TTime since;
    vxsched::TTime until;
};
