#include "runs/ParseJson.h"

#include <nlohmann/json.hpp>
#include <string>

using TJson = nlohmann::ordered_json;

CJsonTooDeep::CJsonTooDeep()
    : std::runtime_error("it is nested deeper than " + std::to_string(cMostJsonLevels) +
                         " levels") {}

TJson ParseJson(std::string_view string) {
    // `depth` counts the levels around the value that begins or ends.
    const auto checkDepth = [](int depth, TJson::parse_event_t event, const TJson& /*parsed*/) {
        const bool begins = event == TJson::parse_event_t::object_start ||
                            event == TJson::parse_event_t::array_start;
        if (begins && depth >= cMostJsonLevels)
            throw CJsonTooDeep();
        return true;
    };
    return TJson::parse(string, checkDepth);
}
