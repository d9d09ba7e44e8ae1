#pragma once

#include "calendar/CCalendarError.h"

namespace vxsched {

// The error of an expression that can be read, and that never has a launch.
class CNeverComes : public CCalendarError {
    using CCalendarError::CCalendarError;
};

}  // namespace vxsched
