// The schedule's rules (Decision.h) run against the real settings files, clock, generator and log:
// each value is read when the rule reaches it, and each line, write and launch is carried out as
// the rule makes it.
#include "ravel.h"

#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"

#include <QVariant>
#include <cstdlib>

namespace {
class AgentEnv final : public ScheduleEnv {
public:
    QString Read(Setting setting) override {
        const SettingPlace place = PlaceOf(setting);
        return GetConfigure(QLatin1String(place.section), QLatin1String(place.key),
                            QVariant(QString()), FileOf(place))
            .toString();
    }
    void Write(Setting setting, const QString& text) override {
        const SettingPlace place = PlaceOf(setting);
        WriteConfigure(QLatin1String(place.section), QLatin1String(place.key), QVariant(text),
                       FileOf(place));
    }
    QDateTime Now() override { return CurrentDateTime(); }
    int Draw() override { return std::rand(); }
    void Log(int line, const char* format, const LogArgument& argument) override {
        switch (argument.kind) {
        case LogArgument::Kind::None:
            EASYLOG_AT(RAVEL_LOG_SOURCE, line, "%s", format); // no conversion in these formats
            break;
        case LogArgument::Kind::Text:
        case LogArgument::Kind::Moment:
            EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, argument.Written().toUtf8().constData());
            break;
        case LogArgument::Kind::Int:
            EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, int(argument.number));
            break;
        case LogArgument::Kind::UInt:
            EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, unsigned(argument.number));
            break;
        }
    }
    void Indent(int step) override { g_EazyLog.m_nIndent += step; }
    int Launch() override { return ExecuteFile(g_qstrTidewaterExePath, "auto", false); }
    QString UpdaterPath() override { return g_qstrTidewaterExePath; }
    void Exit() override { std::exit(0); }

private:
    static const QString& FileOf(const SettingPlace& place) {
        return place.inUserInfo ? g_qstrUserInfoIniPath : g_qstrTidewaterIniPath;
    }
};
} // namespace

void ReadConfigInfo(CONFIG_INFO& info) {
    AgentEnv env;
    ReadConfigInfo(env, info);
}

bool IsTimeToLaunchUpdate(const CONFIG_INFO& info) {
    AgentEnv env;
    return IsTimeToLaunchUpdate(env, info);
}

void CheckMissed() {
    AgentEnv env;
    CheckMissed(env);
}

void RunCheck() {
    AgentEnv env;
    Check(env);
}
