// A client of the soak run: changes, queries and launches tasks of its own, a few dozen times a
// second, until the file "enough" exists. While the file "hold" exists it pauses and creates the
// file "held NUMBER".

#include <CEvent.h>
#include <scheduler/Scheduler.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

static void Announce(const std::string& file) {
    std::ofstream said(file);
}

// Programs that ExecuteTaskNow started are children of this process, which must collect them.
static void CollectChildren() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: soak-client NUMBER PROGRAM\n");
        return 2;
    }
    const std::string number = argv[1];
    const char* const program = argv[2];
    std::mt19937 random(static_cast<unsigned int>(std::atoi(argv[1])));
    CEvent wake("libVantrixScheduler.so", false);
    Announce("loaded " + number);
    long changes = 0;
    while (!std::filesystem::exists("enough")) {
        if (std::filesystem::exists("hold")) {
            CollectChildren();
            Announce("held " + number);
            while (std::filesystem::exists("hold"))
                usleep(50'000);
            std::filesystem::remove("held " + number);
        }
        const std::string task = "task " + number + '.' + std::to_string(random() % 10);
        const char* const name = task.c_str();
        const long now = std::time(nullptr);
        const long later = now + 3600 + static_cast<long>(random() % 100'000);
        switch (random() % 12) {
            case 0:
            case 1:
            case 2:
                CreateTask(name, &later, static_cast<unsigned int>(random() % 48), program, name);
                break;
            case 3:
                DestroyTask(name);
                break;
            case 4:
                PauseTask(name);
                break;
            case 5:
                ResumeTask(name);
                break;
            case 6:
                SetTaskPeriod(name, static_cast<unsigned int>(1 + random() % 48));
                break;
            case 7:
                if (random() % 20 == 0) {
                    const std::string once = "once " + number;
                    DestroyTask(once.c_str());
                    CreateTask(once.c_str(), &now, 0, program, "once");
                    wake.SetEvent();
                }
                break;
            case 8:
                if (random() % 200 == 0)
                    ExecuteTaskNow(name, true);
                break;
            default: {
                long value = 0;
                unsigned int period = 0;
                IsScheduled(name);
                GetNextExecution(name, &value);
                GetLastExecuted(name, &value);
                GetTaskPeriod(name, &period);
            }
        }
        ++changes;
        usleep(20'000);
    }
    std::printf("client %s: %ld calls\n", number.c_str(), changes);
    std::fflush(stdout);
    // Without finalisers, which would remove the store mutex under the others.
    _exit(0);
}
