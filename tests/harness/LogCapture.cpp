#include "LogCapture.h"

#include <VXC_Log.h>

#include <utility>

CLogCapture::CLogCapture() {
    VXC_SetLogSink(Sink, this);
}

CLogCapture::~CLogCapture() {
    VXC_SetLogSink(nullptr, nullptr);
}

std::vector<std::string> CLogCapture::Take() {
    return std::exchange(messages, {});
}

void CLogCapture::Sink(const std::string& message, void* context) {
    static_cast<CLogCapture*>(context)->messages.push_back(message);
}
