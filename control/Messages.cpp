#include "control/Messages.h"

#include <cerrno>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>
#include <variant>

#include "runs/ParseJson.h"

namespace vxsched {

namespace {

using TJson = nlohmann::ordered_json;

constexpr int cVersion = 1;
constexpr char cRun[] = "run";
constexpr char cStop[] = "stop";

// A request that is not carried out.
struct TRefusal {
    int error;
    std::string message;
};

// Strings of a task may hold any bytes, strings of JSON code points only. So each byte is the code
// point of its number: U+0000 to U+00FF.
std::string CodePointsOf(std::string_view bytes) {
    std::string codePoints;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x80) {
            codePoints += character;
        } else {
            codePoints += static_cast<char>(0xc0U | (byte >> 6U));
            codePoints += static_cast<char>(0x80U | (byte & 0x3fU));
        }
    }
    return codePoints;
}

// Throws TRefusal for a code point above U+00FF, which is no byte. `codePoints` is UTF-8.
std::string BytesOf(std::string_view codePoints) {
    std::string bytes;
    for (std::size_t index = 0; index < codePoints.size(); ++index) {
        const auto first = static_cast<unsigned char>(codePoints[index]);
        if (first < 0x80) {
            bytes += codePoints[index];
        } else if (first <= 0xc3 && index + 1 < codePoints.size()) {
            const auto second = static_cast<unsigned char>(codePoints[++index]);
            bytes += static_cast<char>(((first & 0x03U) << 6U) | (second & 0x3fU));
        } else {
            throw TRefusal{EINVAL, "a string has a code point above U+00FF"};
        }
    }
    return bytes;
}

std::string LineOf(const TJson& json) {
    return json.dump(-1, ' ', true, TJson::error_handler_t::replace) + '\n';
}

TJson NewMessage() {
    TJson json;
    json["version"] = cVersion;
    return json;
}

// What is passed to a program ends at a zero byte.
std::string StringOf(const TJson& json, const char* field) {
    std::string bytes = BytesOf(json.at(field).get<std::string>());
    if (bytes.find('\0') != std::string::npos)
        throw TRefusal{EINVAL, std::string("\"") + field + "\" has a zero byte"};
    return bytes;
}

// Of a run, whose file has it as its name.
std::string IdOf(const TJson& json) {
    std::string id = StringOf(json, "run");
    if (id.find('/') != std::string::npos)
        throw TRefusal{EINVAL, "\"run\" has a slash, which is in no id of a run"};
    return id;
}

std::variant<TLaunchRequest, TStopRequest> DecodeRequest(std::string_view line) {
    try {
        const TJson json = ParseJson(line);
        if (json.at("version") != cVersion)
            throw TRefusal{EPROTONOSUPPORT, "this host knows requests of version 1"};
        if (json.at("request") == cStop)
            return TStopRequest{StringOf(json, "task"), IdOf(json)};
        if (json.at("request") != cRun)
            throw TRefusal{ENOSYS, "this host knows the requests \"run\" and \"stop\""};
        return TLaunchRequest{StringOf(json, "task"), StringOf(json, "program"),
                              StringOf(json, "parameter")};
    } catch (const TJson::exception&) {
        throw TRefusal{EINVAL, "the line is not a request"};
    } catch (const CJsonTooDeep&) {
        throw TRefusal{EINVAL, "the line is not a request"};
    }
}

// A number from 0 on; throws TJson::exception or std::out_of_range for anything else.
int NumberOf(const TJson& json, const char* field) {
    const TJson& value = json.at(field);
    if (!value.is_number_unsigned() || !std::in_range<int>(value.get<std::uint64_t>()))
        throw std::out_of_range(field);
    return value.get<int>();
}

// The errors of an answer are from 1 on, processes as well.
TLaunchAnswer ReadAnswer(const TJson& json) {
    TLaunchAnswer answer;
    if (json.contains("error")) {
        answer.error = NumberOf(json, "error");
        answer.message = json.at("message").get<std::string>();
    } else {
        answer.process = NumberOf(json, "process");
        answer.run = json.at("run").get<std::string>();
    }
    if ((answer.error == 0) == (answer.process == 0))
        throw std::out_of_range("neither an error nor a process");
    // The client makes paths of it.
    if (answer.run.find('/') != std::string::npos)
        throw std::out_of_range("run");
    return answer;
}

TStopAnswer ReadStopAnswer(const TJson& json) {
    TStopAnswer answer;
    if (!json.contains("error")) {
        static_cast<void>(json.at("run").get<std::string>());
        return answer;
    }
    answer.error = NumberOf(json, "error");
    answer.message = json.at("message").get<std::string>();
    if (answer.error == 0)
        throw std::out_of_range("error");
    return answer;
}

TJson NewError(int error, const std::string& message) {
    TJson json = NewMessage();
    json["error"] = error;
    json["message"] = message;
    return json;
}

std::string EncodeStopAnswer(const TStopRequest& request, const TStopAnswer& answer) {
    if (answer.error != 0)
        return LineOf(NewError(answer.error, answer.message));
    TJson json = NewMessage();
    json["run"] = CodePointsOf(request.run);
    return LineOf(json);
}

// Empty if `line` is no message of this version that `read` reads.
template <typename Answer>
std::optional<Answer> Decode(std::string_view line, Answer (*read)(const TJson&)) {
    try {
        const TJson json = ParseJson(line);
        if (json.at("version") == cVersion)
            return read(json);
    } catch (const TJson::exception&) {  // not an answer
    } catch (const CJsonTooDeep&) {
    } catch (const std::out_of_range&) {
    }
    return {};
}

}  // namespace

std::string EncodeStopRequest(const TStopRequest& request) {
    TJson json = NewMessage();
    json["request"] = cStop;
    json["task"] = CodePointsOf(request.task);
    json["run"] = CodePointsOf(request.run);
    return LineOf(json);
}

std::string EncodeRequest(const TLaunchRequest& request) {
    TJson json = NewMessage();
    json["request"] = cRun;
    json["task"] = CodePointsOf(request.task);
    json["program"] = CodePointsOf(request.program);
    json["parameter"] = CodePointsOf(request.parameter);
    return LineOf(json);
}

std::string EncodeAnswer(const TLaunchAnswer& answer) {
    if (answer.error != 0)
        return LineOf(NewError(answer.error, answer.message));
    TJson json = NewMessage();
    json["process"] = answer.process;
    json["run"] = answer.run;
    return LineOf(json);
}

std::string AnswerRequest(std::string_view line,
                          const std::function<TLaunchAnswer(const TLaunchRequest&)>& launch,
                          const std::function<TStopAnswer(const TStopRequest&)>& stop) {
    try {
        const std::variant<TLaunchRequest, TStopRequest> request = DecodeRequest(line);
        if (const auto* const stopRequest = std::get_if<TStopRequest>(&request))
            return EncodeStopAnswer(*stopRequest, stop(*stopRequest));
        return EncodeAnswer(launch(std::get<TLaunchRequest>(request)));
    } catch (const TRefusal& refusal) {
        return EncodeAnswer({.error = refusal.error, .message = refusal.message});
    }
}

std::optional<TLaunchAnswer> DecodeAnswer(std::string_view line) {
    return Decode<TLaunchAnswer>(line, ReadAnswer);
}

std::optional<TStopAnswer> DecodeStopAnswer(std::string_view line) {
    return Decode<TStopAnswer>(line, ReadStopAnswer);
}

}  // namespace vxsched
