#include "ravel.h"

#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"

#include <QDateTime>
#include <QVariant>
#include <cstdlib>

namespace {
const QString kDateFormat = QStringLiteral("yyyy-MM-dd hh:mm:ss");
constexpr quint32 kSecondsPerDay = 86400;

QVariant ReadUserInfo(const char* section, const char* key, const QVariant& defaultValue) {
    return GetConfigure(QString::fromLatin1(section), QString::fromLatin1(key), defaultValue,
                        g_qstrUserInfoIniPath);
}

void WriteUserInfo(const char* section, const char* key, const QVariant& value) {
    WriteConfigure(QString::fromLatin1(section), QString::fromLatin1(key), value,
                   g_qstrUserInfoIniPath);
}

QVariant ReadUpdateSetting(const char* key, const char* defaultText) {
    return GetConfigure(QStringLiteral("UpdateSetting"), QString::fromLatin1(key),
                        QVariant(QString::fromLatin1(defaultText)), g_qstrTidewaterIniPath);
}

quint32 Now() {
    return ToTimeT(CurrentDateTime());
}

quint32 StrategyFromText(const QString& strategy) {
    if (strategy == QLatin1String("never"))
        return 0;
    if (strategy != QLatin1String("cycle")) {
        RAVEL_LOG("Strategy not correct(Strategy=%s)", strategy.toUtf8().constData());
        WriteUserInfo("UpdateStrategy", "Strategy", QVariant(QStringLiteral("cycle")));
    }
    return 1;
}

// Only an absent or empty key takes the default; a stored text that reads as 0 stays 0.
quint32 RepairUpdateCycle(quint32 cycle) {
    if (cycle != 0)
        return cycle;
    RAVEL_LOG("UpdateCycle(%d) not correct", int(cycle));
    const QString fallback = ReadUpdateSetting("ConfigCycleDefault", "1").toString();
    const QString text =
        ReadUserInfo("UpdateStrategy", "UpdateCycle", QVariant(fallback)).toString();
    WriteUserInfo("UpdateStrategy", "UpdateCycle", QVariant(text));
    return text.toUInt(nullptr, 10);
}

quint32 ContinueFromStatus(const QString& status) {
    if (NeedContinue(status))
        return 1;
    if (status != QLatin1String("ready"))
        WriteUserInfo("UpdateInfo", "LastStatus", QVariant(QStringLiteral("ready")));
    return 0;
}

// An unusable date starts the first cycle now. What "0" reads as never changes, and reading it
// costs more than the rest of a check: it is read once.
quint32 RepairLastLaunchTime(const QString& text) {
    static const quint32 unusable =
        ToTimeT(QDateTime::fromString(QStringLiteral("0"), kDateFormat));
    const quint32 moment = ToTimeT(QDateTime::fromString(text, kDateFormat));
    if (moment != unusable)
        return moment;
    const QDateTime now = CurrentDateTime();
    WriteUserInfo("UpdateRecord", "LastLaunchTime", QVariant(now.toString(kDateFormat)));
    return ToTimeT(now);
}

quint32 RepairDelayTimes(quint32 delayTimes) {
    if (delayTimes - 1u <= 2u)
        return delayTimes;
    RAVEL_LOG("DelayTimes not correct");
    WriteUserInfo("DelayInfo", "DelayTimes", QVariant(QStringLiteral("1")));
    return 1;
}

// Draws the moment up to which the launch waits; the first and second rounds spread over the
// whole and half the range, later rounds wait one second.
void DrawDelay(quint32 now, quint32 delayTimes) {
    const quint32 range = ReadUpdateSetting("TimeRandomRange", "720").toUInt();
    quint32 span = 0;
    if (delayTimes == 1)
        span = range * 60u;
    else if (delayTimes == 2)
        span = (range / 2u) * 60u;
    const int r = std::rand();
    const qint64 offset = qint64(r) * qint64(quint64(span)) / 2147483648LL + 1;
    const qint64 delayTime = qint64(now) + offset;
    WriteUserInfo("DelayInfo", "DelayTime", QVariant(delayTime));
    const QDateTime moment = QDateTime::fromSecsSinceEpoch(qint64(quint32(delayTime)));
    RAVEL_LOG("Delay to Time (%s)", moment.toString(kDateFormat).toUtf8().constData());
}
} // namespace

void ReadConfigInfo(CONFIG_INFO& info) {
    RAVEL_ENTER("ReadConfigInfo");
    const QString strategy =
        ReadUserInfo("UpdateStrategy", "Strategy", QVariant(QStringLiteral("cycle"))).toString();
    const QString lastLaunch =
        ReadUserInfo("UpdateRecord", "LastLaunchTime", QVariant(QStringLiteral("0"))).toString();
    const QString status =
        ReadUserInfo("UpdateInfo", "LastStatus", QVariant(QStringLiteral("0"))).toString();
    // An absent key means delayed to the end of the 32-bit clock, not "no delay drawn".
    info.nDelayTime = ReadUserInfo("DelayInfo", "DelayTime", QVariant(-1)).toUInt();
    info.nUpdateCycle =
        ReadUserInfo("UpdateStrategy", "UpdateCycle", QVariant(QStringLiteral("0"))).toUInt();
    info.nDelayTimes =
        ReadUserInfo("DelayInfo", "DelayTimes", QVariant(QStringLiteral("0"))).toUInt();

    info.nStrategy = StrategyFromText(strategy);
    info.nUpdateCycle = RepairUpdateCycle(info.nUpdateCycle);
    info.bContinue = ContinueFromStatus(status);
    info.nLastLaunchTime = RepairLastLaunchTime(lastLaunch);
    info.nDelayTimes = RepairDelayTimes(info.nDelayTimes);
    RAVEL_LEAVE("ReadConfigInfo");
}

bool IsTimeToLaunchUpdate(const CONFIG_INFO& info) {
    const quint32 now = Now();
    if (now - info.nLastLaunchTime <= info.nUpdateCycle * kSecondsPerDay)
        return false;
    RAVEL_LOG("Time is used up, ravel will check if delay time is ok");
    bool forced = false;
    if (info.nDelayTimes > 2) {
        forced = true;
        RAVEL_LOG("DelayTimes >= 3");
    }
    if (ReadUpdateSetting("AutoCheckNow", "1").toUInt() != 0) {
        RAVEL_LOG("AutoCheckNow = 1");
        return true;
    }
    if (info.nDelayTime != 0)
        return now >= info.nDelayTime || forced;
    DrawDelay(now, info.nDelayTimes);
    return forced;
}

// A delay that ran out while the agent was away counts as one more round, already past.
void CheckMissed() {
    RAVEL_ENTER("CheckMissed");
    CONFIG_INFO info;
    ReadConfigInfo(info);
    if (info.nDelayTimes < 3 && info.nDelayTime != 0 && Now() > info.nDelayTime) {
        const quint32 delayTimes = info.nDelayTimes + 1;
        WriteUserInfo("DelayInfo", "DelayTime", QVariant(QStringLiteral("1")));
        WriteUserInfo("DelayInfo", "DelayTimes", QVariant(delayTimes));
        RAVEL_LOG("Missed UpdateTime, DelayTimes=%u", delayTimes);
    }
    RAVEL_LEAVE("CheckMissed");
}

bool NeedContinue(const QString& status) {
    return status == QLatin1String("querying") || status == QLatin1String("downloading") ||
           status == QLatin1String("downloaded");
}
