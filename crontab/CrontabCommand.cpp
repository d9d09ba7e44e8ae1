#include "crontab/CrontabCommand.h"

namespace vxsched {

namespace {

std::string ReadInput(std::string_view text) {
    std::string input;
    bool isEscaped = false;
    for (const char character : text) {
        if (isEscaped && character != '%')
            input += '\\';
        const char read = !isEscaped && character == '%' ? '\n' : character;
        isEscaped = read == '\\';
        if (!isEscaped)
            input += read;
    }
    if (isEscaped)
        input += '\\';
    if (!input.empty() && input.back() != '\n')
        input += '\n';
    return input;
}

std::string WriteInput(std::string_view input) {
    std::string text;
    for (const char character : input.substr(0, input.size() - 1)) {
        if (character == '%')
            text += '\\';
        text += character == '\n' ? '%' : character;
    }
    return text;
}

}  // namespace

TCrontabCommand ReadCrontabCommand(std::string_view text) {
    TCrontabCommand read;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const char character = text[index];
        const bool isEscape = character == '\\' && index + 1 < text.size() &&
                              (text[index + 1] == '%' || text[index + 1] == '\\');
        if (isEscape) {
            read.command += text[++index];
        } else if (character == '%') {
            read.input = ReadInput(text.substr(index + 1));
            break;
        } else {
            read.command += character;
        }
    }
    return read;
}

std::optional<std::string> WriteCrontabCommand(const TCrontabCommand& command) {
    std::string text;
    for (const char character : command.command) {
        if (character == '%' || character == '\\')
            text += '\\';
        text += character;
    }
    if (command.input)
        text += '%' + WriteInput(*command.input);
    if (text.find('\n') != std::string::npos || ReadCrontabCommand(text) != command)
        return {};
    return text;
}

}  // namespace vxsched
