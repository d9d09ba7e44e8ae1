// Prints the table of the working directory. It reads the file without loading the add-in, since a
// load reschedules or removes tasks whose due time is past and writes the file back.

#include <COpen.h>
#include <fcntl.h>
#include <scheduler/TaskFields.h>

#include <cstdio>
#include <exception>

struct TPrinter {
    COpen& file;

    void operator()(std::string& string) const { file.ReadString(string); }
    void operator()(time_t& time) const { file.Read(&time, sizeof time); }
    void operator()(std::uint32_t& value) const { value = file.ReadUnsigned(); }
    void operator()(std::int32_t& flag) const {
        flag = static_cast<std::int32_t>(file.ReadUnsigned());
    }
};

static std::string Time(time_t time) {
    if (time == 0)
        return "never";
    tm local{};
    char buffer[64] = "?";
    if (localtime_r(&time, &local) != nullptr)
        std::strftime(buffer, sizeof buffer, "%F %T", &local);
    return buffer;
}

int main() {
    try {
        COpen file(cTaskFile, O_RDONLY, 0);
        if (!file.IsValid()) {
            std::puts("(no table)");
            return 0;
        }
        std::uint64_t count = 0;
        file.Read(&count, sizeof count);
        std::printf("%llu task(s)\n", static_cast<unsigned long long>(count));
        for (; count > 0; --count) {
            TTask task;
            ForEachField(task, TPrinter{file});
            std::printf("  %s: next %s, last %s, every %u h%s, %s \"%s\"\n", task.name.c_str(),
                        Time(task.nextExecution).c_str(), Time(task.lastExecuted).c_str(),
                        task.period, task.paused != 0 ? ", paused" : "", task.program.c_str(),
                        task.parameters.c_str());
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "print_table: %s\n", error.what());
        return 1;
    }
}
