// The resident duplicate beside a bare resident Qt program (bare_resident), both of this build
// and started afresh in each repetition: peak resident memory (VmHWM) once settled, and the CPU
// time used over five idle seconds between two timer events. Runs in a private network
// namespace only, as both listen on the agent's port.
#include "CommonFunctions.h"
#include "PrivateNetwork.h"
#include "RestingAgent.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>

extern char** environ;

namespace {

using namespace std::chrono_literals;
constexpr auto kIdleWindow = 5s;

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// "VmHWM:   12345 kB" from /proc/<pid>/status.
double PeakResidentKiB(pid_t pid) {
    std::istringstream status(ReadAll("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stod(line.substr(6));
    return -1;
}

// Time on the CPU of all the process's threads, in nanoseconds.
double CpuNanoseconds(pid_t pid) {
    double total = 0;
    const QString tasks = QString("/proc/%1/task").arg(pid);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        total += std::stod("0" + ReadAll((tasks + "/" + task + "/schedstat").toStdString()));
    return total;
}

// Read from the socket table: a connection would end the agent.
bool PortListening() {
    std::istringstream table(ReadAll("/proc/self/net/tcp"));
    for (std::string line; std::getline(table, line);)
        if (line.find(":7A66 00000000:0000 0A") != std::string::npos) // 31334, listening
            return true;
    return false;
}

template <class Condition> bool WaitFor(Condition condition) {
    for (int i = 0; i < 400 && !condition(); ++i)
        std::this_thread::sleep_for(50ms);
    return condition();
}

pid_t Start(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    return posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

// Only the process started here is ended, by its PID.
void Stop(pid_t pid) {
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
}

struct Figures {
    double peakKiB = -1;
    double idleCpuMicroseconds = -1;
};

// Starts the program, waits until it is settled, measures, ends it.
template <class Settled> Figures Measure(const std::vector<std::string>& args, Settled settled) {
    Figures figures;
    const pid_t pid = Start(args);
    if (pid <= 0)
        return figures;
    if (WaitFor([&] { return PortListening() && settled(); })) {
        // The first check runs at once and the next one a minute later: this window is idle.
        std::this_thread::sleep_for(500ms);
        const double before = CpuNanoseconds(pid);
        std::this_thread::sleep_for(kIdleWindow);
        figures.idleCpuMicroseconds = (CpuNanoseconds(pid) - before) / 1000;
        figures.peakKiB = PeakResidentKiB(pid);
    }
    Stop(pid);
    return figures;
}

Figures Agent() {
    QTemporaryDir dir;
    const QString installed = LayOutRestingAgent(dir, "1");
    const QString log = dir.filePath("data/log/ravel.log");
    return Measure({RAVEL_AGENT, installed.toStdString()}, [&] {
        return ReadAll(log.toStdString()).find("InitAgent") != std::string::npos;
    });
}

Figures Bare() {
    return Measure({BARE_RESIDENT}, [] { return true; });
}

template <class Run> void Report(benchmark::State& state, Run run, bool memory) {
    if (!InPrivateNetwork() || PortListening()) {
        state.SkipWithError("run in a private network namespace (scripts/bench.sh does)");
        return;
    }
    for (auto _ : state) {
        const Figures figures = run();
        const double value = memory ? figures.peakKiB : figures.idleCpuMicroseconds;
        if (value < 0)
            state.SkipWithError("the program did not settle");
        state.counters[memory ? "KiB" : "us"] = value;
    }
}

void AgentMemory(benchmark::State& state) {
    Report(state, Agent, true);
}
void BareMemory(benchmark::State& state) {
    Report(state, Bare, true);
}
void AgentIdleCpu(benchmark::State& state) {
    Report(state, Agent, false);
}
void BareIdleCpu(benchmark::State& state) {
    Report(state, Bare, false);
}

} // namespace

BENCHMARK(AgentMemory)->Name("resident-peak-rss/ravel")->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BareMemory)->Name("resident-peak-rss/bare-qt")->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(AgentIdleCpu)
    ->Name("resident-idle-cpu-5s/ravel")
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK(BareIdleCpu)
    ->Name("resident-idle-cpu-5s/bare-qt")
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
