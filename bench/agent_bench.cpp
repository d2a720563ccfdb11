// One CheckingLoop::check() that does not launch: every value re-read from the settings files,
// the decision taken, the log lines written. Runs in a private network namespace only, as the
// loop holds the agent's port.
#include "CheckingLoop.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "PrivateNetwork.h"
#include "RestingAgent.h"
#include "ravel.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QTemporaryDir>
#include <QVariant>
#include <benchmark/benchmark.h>

namespace {

QByteArray ReadBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The globals of a duplicate on a resting set-up: the check finds nothing due.
void LayOut(const QTemporaryDir& dir) {
    g_qstrOrgPath = LayOutRestingAgent(dir, "60");
    const QString dup = GetDuplicatePath(false);
    QDir().mkpath(dup);
    g_qstrUserInfoIniPath = dup + USER_INFO_DAT;
}

void CheckWithoutLaunch(benchmark::State& state) {
    if (!InPrivateNetwork()) {
        state.SkipWithError("run in a private network namespace (scripts/bench.sh does)");
        return;
    }
    int argc = 1;
    char name[] = "agent_bench";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    LayOut(dir);
    g_EazyLog.Init("ravel.log");
    if (InitFilePath(g_qstrOrgPath, false) != 0) {
        state.SkipWithError("the set-up is incomplete");
        return;
    }
    CheckingLoop loop(QCoreApplication::applicationFilePath());
    const QByteArray before = ReadBytes(g_qstrUserInfoIniPath);
    for (auto _ : state)
        loop.check();
    // No updater is laid out: a launch would show as a line about it in the log.
    if (ReadBytes(g_qstrUserInfoIniPath) != before ||
        ReadBytes(GetDuplicatePath(true) + "ravel.log").contains("Launch("))
        state.SkipWithError("the check wrote the schedule or launched");
    g_EazyLog.ResetForTesting();
}

} // namespace

BENCHMARK(CheckWithoutLaunch)->Name("check-no-launch/ravel");
