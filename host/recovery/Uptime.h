#pragma once

#include <vxsched/Table.h>

// From when to when a host looked after tasks: what came due in between was its to start.
struct TWatch {
    vxsched::TTime since;
    vxsched::TTime until;
};
