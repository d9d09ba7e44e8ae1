#include "client/Request.h"

#include "client/Fields.h"

namespace vxsched {

namespace {

// The fields of a call, in one order for both encoding and decoding.
template <typename Call, typename Transfer>
void ForEachField(Call& call, const Transfer& transfer) {
    transfer(call.function);
    transfer(call.task.name);
    transfer(call.task.next);
    transfer(call.task.period);
    transfer(call.task.program);
    transfer(call.task.parameter);
    transfer(call.task.paused);
    transfer(call.mustBeNew);
    transfer(call.mustExist);
    transfer(call.mustNotRun);
    transfer(call.mustBeAsSeen);
    transfer(call.seen.name);
    transfer(call.seen.next);
    transfer(call.seen.last);
    transfer(call.seen.period);
    transfer(call.seen.program);
    transfer(call.seen.parameter);
    transfer(call.seen.paused);
    transfer(call.keepDue);
    transfer(call.newName);
    transfer(call.mayRemove);
}

struct TWriter {
    std::string& bytes;

    void operator()(const std::string& string) const { PutField(bytes, string); }
    void operator()(const TTime& time) const {
        PutField(bytes, std::to_string(time.time_since_epoch().count()));
    }
    template <typename Number>
    void operator()(const Number& number) const {
        PutField(bytes, std::to_string(static_cast<std::int64_t>(number)));
    }
};

struct TReader {
    std::string_view& bytes;

    void operator()(std::string& string) const { string = TakeField(bytes).value_or(""); }
    void operator()(TTime& time) const {
        std::int64_t seconds = 0;
        (*this)(seconds);
        time = TTime(std::chrono::seconds(seconds));
    }
    template <typename Number>
    void operator()(Number& number) const {
        number = static_cast<Number>(std::stoll(std::string(TakeField(bytes).value_or("0"))));
    }
};

}  // namespace

std::string Encode(const TRequest& request) {
    std::string bytes;
    const TWriter write{bytes};
    write(request.directory);
    write(request.addIn);
    write(request.lockTimeout);
    write(request.evenIfDue);
    write(request.hasScheduler);
    write(request.hasHost);
    write(request.hasOutput);
    for (const TCall& call : request.calls)
        ForEachField(call, write);
    return bytes;
}

TRequest DecodeRequest(std::string_view bytes) {
    TRequest request;
    const TReader read{bytes};
    read(request.directory);
    read(request.addIn);
    read(request.lockTimeout);
    read(request.evenIfDue);
    read(request.hasScheduler);
    read(request.hasHost);
    read(request.hasOutput);
    while (!bytes.empty()) {
        TCall call;
        ForEachField(call, read);
        request.calls.push_back(std::move(call));
    }
    return request;
}

}  // namespace vxsched
