#include "store/CChangeEvent.h"

#include <fmt/format.h>

#include <system_error>

#include <vxsched/Error.h>
#include "store/Layout.h"

namespace vxsched {

static CError EventError(const char* what, const std::system_error& error) {
    return SystemError(fmt::format("cannot {} the event \"{}\"", what, cTaskChangedEventName),
                       error.code().value());
}

CChangeEvent::CChangeEvent() try : event(cTaskChangedEventName, true) {
} catch (const std::system_error& error) {
    throw EventError("open", error);
}

std::string CChangeEvent::Announce() {
    try {
        event.SetEvent();
        return "";
    } catch (const std::system_error& error) {
        return fmt::format(
            "the change is made and could not be announced: {}; a scheduling process that runs "
            "reads it when another change is announced, or when it is started again",
            EventError("signal", error).what());
    }
}

}  // namespace vxsched
