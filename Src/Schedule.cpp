// The schedule's rules run against the real settings files, clock and generator: each value is
// read when the rule asks for it, and each log line, write and launch is carried out as it
// comes, so the files see the same reads and writes in the same order as ever.
#include "ravel.h"

#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "LogTexts.h"

#include <QVariant>
#include <cstdlib>

namespace {
QString SettingsFile(const SettingPlace& place) {
    return place.inUserInfo ? g_qstrUserInfoIniPath : g_qstrTidewaterIniPath;
}

void Supply(Need need, Known& known) {
    if (need == Need::Clock)
        return known.AddClock(CurrentDateTime());
    if (need == Need::Draw)
        return known.SetDraw(std::rand());
    const SettingPlace place = PlaceOf(need);
    known.Set(need, GetConfigure(place.section, place.key, QVariant(QString()), SettingsFile(place))
                        .toString());
}

// Each message is logged with a line of its own, that of its format in the rules' source.
void Log(const Effect& effect) {
    const char* format = NoteFormat(effect.note);
    const int line = NoteLine(effect.note);
    if (effect.note == Note::Leave)
        --g_EazyLog.m_nIndent;
    switch (ArgumentOf(effect.note)) {
    case Argument::None:
        EASYLOG_AT(RAVEL_LOG_SOURCE, line, "%s", format); // no conversion in these formats
        break;
    case Argument::Text:
        EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, ArgumentText(effect).toUtf8().constData());
        break;
    case Argument::Int:
        EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, int(effect.number));
        break;
    case Argument::UInt:
        EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, unsigned(effect.number));
        break;
    case Argument::UpdaterPath:
        EASYLOG_AT(RAVEL_LOG_SOURCE, line, format, g_qstrTidewaterExePath.toUtf8().constData());
        break;
    }
    if (effect.note == Note::Enter)
        ++g_EazyLog.m_nIndent;
}

void LaunchUpdater() {
    if (ExecuteFile(g_qstrTidewaterExePath, "auto", false) == -1)
        RAVEL_LOG(logtext::kLaunchFailed, g_qstrTidewaterExePath.toUtf8().constData());
}

void Carry(const Effect& effect) {
    switch (effect.kind) {
    case Effect::Kind::Log:
        return Log(effect);
    case Effect::Kind::Write: {
        const SettingPlace place = PlaceOf(effect.key);
        return WriteConfigure(place.section, place.key, QVariant(WrittenText(effect)),
                              SettingsFile(place));
    }
    case Effect::Kind::Launch:
        return LaunchUpdater();
    case Effect::Kind::Exit:
        std::exit(0);
    }
}
} // namespace

Outcome CarryOut(const std::function<Outcome(const Known&)>& rule) {
    Known known;
    return RunRule(rule, known, Supply, Carry);
}

void ReadConfigInfo(CONFIG_INFO& info) {
    info = CarryOut(ReadScheduleRule).info;
}

bool IsTimeToLaunchUpdate(const CONFIG_INFO& info) {
    return CarryOut([&info](const Known& known) { return LaunchRule(info, known); }).launch;
}

void CheckMissed() {
    CarryOut(MissedRule);
}
