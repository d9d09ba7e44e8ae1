#include "host/service/CMainLoop.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "host/CHostLog.h"
#include "host/HostThread.h"
#include "store/StopEvent.h"

// Where no service manager says how long a worker may seem dead. It is for the log only.
static constexpr std::chrono::minutes cDefaultTimeout(2);
// Ticks are a minute apart; more where one starts programs.
static constexpr std::chrono::seconds cLateTick(75);
// Between two looks for the end of a tick, which nothing announces.
static constexpr std::chrono::milliseconds cTickPollInterval(5);

static bool WorkerIsIdle() {
    return CEvent::UseOf(cStopEventName).waiters > 0;
}

CMainLoop::CMainLoop(CSignals& hostSignals, CServiceManager& serviceManager,
                     CLaunchedPrograms& startedPrograms, CEvent& workersEvent)
    : signals(hostSignals),
      service(serviceManager),
      programs(startedPrograms),
      stopEvent(workersEvent),
      watch(service.WatchdogTimeout().count() > 0 ? service.WatchdogTimeout() : cDefaultTimeout,
            TClock::now()) {
    Watch(signals.Descriptor(), [this] { TakeSignals(); });
    Watch(programs.WakeDescriptor(), [this] { programs.CollectFinished(); });
    MarkHostThread();
    if (service.WatchdogTimeout().count() > 0)
        return;
    ticks.emplace(cLateTick);
    if (ticks->Descriptor().IsOpen())
        Watch(ticks->Descriptor().Get(), [this] { ticks->Push(); });
}

void CMainLoop::Watch(int descriptor, std::function<void()> onReadable) {
    sources.push_back({.descriptor = descriptor, .onReadable = std::move(onReadable)});
}

void CMainLoop::WaitForStop() {
    NotifyStatus();
    while (!stopSignal) {
        Turn(NextCheck());
        MonitorWorker();
        NotifyStatus();
    }
}

void CMainLoop::WaitForTickEnd() {
    while (!stopSignal && !WorkerIsIdle())
        Turn(TClock::now() + cTickPollInterval);
}

void CMainLoop::WaitForPrograms() {
    while (!stopSignal && programs.Count() > 0)
        Turn(TClock::now() + cDefaultTimeout);
}

// While ticks come in time, their timer says when a look is needed.
CMainLoop::TClock::time_point CMainLoop::NextCheck() const {
    const bool isTold = ticks && ticks->Descriptor().IsOpen() && wasAlive;
    return isTold ? TClock::time_point::max() : watch.NextCheck();
}

// Waits until something happens, at most until then, and deals with it.
void CMainLoop::Turn(TClock::time_point until) {
    std::vector<pollfd> descriptors;
    for (const TBackup& source : sources)
        descriptors.push_back({.fd = source.descriptor, .events = POLLIN, .revents = 0});
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - TClock::now());
    const auto milliseconds =
        until == TClock::time_point::max()
            ? -1
            : static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(rest.count(), 0, 60'000));
    if (poll(descriptors.data(), descriptors.size(), milliseconds) == -1) {
        if (errno == EINTR)
            return;
        throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
    }
    for (std::size_t index = 0; index < descriptors.size(); ++index) {
        if (descriptors[index].revents != 0)
            sources[index].onReadable();
    }
}

// What comes behind the signal to stop is not looked at.
void CMainLoop::TakeSignals() {
    while (const auto number = stopSignal ? std::nullopt : signals.Next())
        OnSignal(*number);
}

void CMainLoop::OnSignal(int number) {
    switch (number) {
        case SIGTERM:
        case SIGINT:
            stopSignal = number;
            break;
        case SIGHUP:
            CHostLog::Instance().Reopen();
            break;
        case SIGUSR1:
            LogInfo("ticking at once on SIGUSR1");
            stopEvent.SetEvent();
            break;
        case SIGCHLD:
            programs.CollectFinished();
            break;
        default:
            break;
    }
}

void CMainLoop::MonitorWorker() {
    const auto verdict = watch.Look(TClock::now(), WorkerIsIdle(), programs.CountLaunches());
    if (verdict == CWorkerWatchdog::cTooEarly)
        return;
    wasAlive = verdict == CWorkerWatchdog::cAlive;
    if (verdict == CWorkerWatchdog::cMissed)
        return;
    const bool lives = verdict == CWorkerWatchdog::cAlive;
    if (lives)
        service.Alive();
    if (lives && !workerLives)
        LogNotice("the worker is alive again");
    if (!lives && workerLives)
        LogWarning(
            "the worker gives no sign of life: it neither rests nor starts programs. It may be "
            "waiting for the store mutex, or be catching up with a start long past.");
    workerLives = lives;
}

void CMainLoop::NotifyStatus() {
    if (!workerLives)
        service.Status("the worker gives no sign of life");
    else if (const std::size_t count = programs.Count(); count > 0)
        service.Status(fmt::format("{} program(s) running", count));
    else
        service.Status("waiting for the next task");
}
