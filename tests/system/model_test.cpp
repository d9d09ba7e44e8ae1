// The library against the model of its rules: random sequences of operations, compared after each.

#include <gtest/gtest.h>
#include <model/CSequence.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Process.h"

#ifdef PLAIN_BUILD
static constexpr int cSequences = 25'000;
#else
static constexpr int cSequences = 1'000;
#endif
static constexpr std::size_t cFewestRecords = 8;
static constexpr std::size_t cMostRecords = 24;

// When the process dies, print the sequence that killed it.
static const CSequence* gRunning = nullptr;

static void ShowRunning(int signal) {
    if (gRunning != nullptr)
        std::fputs(gRunning->Done().c_str(), stderr);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// A new seed each time, or the one in the environment.
static std::uint64_t Seed() {
    const char* const wanted = std::getenv("MODEL_SEED");
    return wanted == nullptr ? std::random_device()() : std::strtoull(wanted, nullptr, 0);
}

// A working directory in memory, where /dev/shm is available.
class CScratchDirectory {
public:
    CScratchDirectory() {
        if (mkdtemp(path.data()) == nullptr || chdir(path.c_str()) != 0)
            path.clear();
    }
    ~CScratchDirectory() {
        if (path.empty() || chdir(before.c_str()) != 0)
            return;
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    CScratchDirectory(const CScratchDirectory&) = delete;
    CScratchDirectory& operator=(const CScratchDirectory&) = delete;

private:
    const std::filesystem::path before = std::filesystem::current_path();
    std::string path = "/dev/shm/vantrix-test-XXXXXX";
};

class Model : public testing::Test {
protected:
    void SetUp() override {
        std::signal(SIGABRT, ShowRunning);
        std::signal(SIGSEGV, ShowRunning);
    }

    const CScratchDirectory directory;
};

// The fuzzer's initial corpus and its past findings. No record of them may be skipped.
TEST_F(Model, AgreesWithTheLibraryOverTheCorpus) {
    for (const auto& entry : std::filesystem::directory_iterator(CORPUS)) {
        const std::string content = ReadFile(entry.path());
        const std::vector<std::uint8_t> bytes(content.begin(), content.end());
        CSequence sequence(bytes);
        gRunning = &sequence;
        EXPECT_EQ(sequence.Run(), "") << entry.path();
        EXPECT_EQ(sequence.LeftOutCount(), 0U) << entry.path();
        gRunning = nullptr;
    }
}

class RandomModel : public Model, public testing::WithParamInterface<int> {};

TEST_P(RandomModel, AgreesWithTheLibrary) {
    const std::uint64_t seed = Seed();
    std::printf("MODEL_SEED=%ju\n", static_cast<std::uintmax_t>(seed));
    std::fflush(stdout);
    std::mt19937_64 random(seed * 4 + static_cast<std::uint64_t>(GetParam()));
    std::size_t done = 0;
    std::size_t leftOut = 0;
    std::vector<std::uint8_t> bytes;
    for (int number = 0; number < cSequences; ++number) {
        bytes.resize(sizeof(TRecord) *
                     (cFewestRecords + random() % (cMostRecords - cFewestRecords + 1)));
        for (std::uint8_t& byte : bytes)
            byte = static_cast<std::uint8_t>(random());
        CSequence sequence(bytes);
        gRunning = &sequence;
        if (!sequence.Run().empty()) {
            CSequence shrunk = sequence.Shrunk();
            gRunning = nullptr;
            FAIL() << "MODEL_SEED=" << seed << ", sequence " << number << ":\n" << shrunk.Run();
        }
        gRunning = nullptr;
        done += sequence.DoneCount();
        leftOut += sequence.LeftOutCount();
    }
    std::printf("%zu operations compared, %zu left out\n", done, leftOut);
    EXPECT_GT(done, 5U * cSequences);
}

INSTANTIATE_TEST_SUITE_P(Part, RandomModel, testing::Range(0, 4));
