#include "Scenario.h"

#include <QRandomGenerator>
#include <QTimeZone>

namespace {
const char kDateTime[] = "yyyy-MM-dd hh:mm:ss";

// Where each UserInfo.dat key lives.
const QMap<QString, QString> kUserSections{
    {"Strategy", "UpdateStrategy"},     {"UpdateCycle", "UpdateStrategy"},
    {"LastLaunchTime", "UpdateRecord"}, {"LastStatus", "UpdateInfo"},
    {"DelayTimes", "DelayInfo"},        {"DelayTime", "DelayInfo"}};
const QStringList kUpdateSettings{"AutoCheckNow", "TimeRandomRange", "TimerMinutes",
                                  "ConfigCycleDefault", "RunWithSystem"};

// A scenario of a one-day cycle, round 1 with no delay drawn, last run `daysBefore` days before
// `start` at `at`, with these "UpdateSetting" values.
Scenario Make(const QString& name, const QDate& start, int daysBefore, const QTime& at,
              const QMap<QString, QString>& updateSetting) {
    Scenario s;
    s.name = name;
    s.start = start;
    s.updateSetting = updateSetting;
    s.lastDaysBefore = daysBefore;
    s.lastAt = at;
    s.user["UpdateStrategy"] = {{"Strategy", "cycle"}, {"UpdateCycle", "1"}};
    s.user["UpdateInfo"]["LastStatus"] = "ready";
    s.user["DelayInfo"] = {{"DelayTimes", "1"}, {"DelayTime", "0"}};
    return s;
}

QList<Scenario> Standard() {
    const QDate monday(2024, 1, 8);
    QList<Scenario> all;
    all << Make("auto", monday, 1, QTime(11, 0), {{"AutoCheckNow", "1"}, {"TimerMinutes", "10"}});
    all << Make("range-inside", monday, 1, QTime(9, 30),
                {{"AutoCheckNow", "0"}, {"TimeRandomRange", "240"}, {"TimerMinutes", "15"}});
    all << Make("range-beyond", monday, 1, QTime(10, 0),
                {{"AutoCheckNow", "0"}, {"TimeRandomRange", "1440"}, {"TimerMinutes", "15"}});
    all.last().sessions = {{QTime(8, 30), QTime(12, 0)}, {QTime(13, 0), QTime(17, 30)}};
    all << Make("two-day-cycle", monday, 2, QTime(14, 0),
                {{"AutoCheckNow", "0"}, {"TimeRandomRange", "120"}, {"TimerMinutes", "5"}});
    all.last().user["UpdateStrategy"]["UpdateCycle"] = "2";
    // Clocks go forward on Sunday 2024-03-10 at 02:00, and back on Sunday 2024-10-27 at 03:00.
    all << Make("dst-new-york", QDate(2024, 3, 9), 1, QTime(12, 0),
                {{"AutoCheckNow", "1"}, {"TimerMinutes", "10"}});
    all.last().zone = "America/New_York";
    all << Make("dst-berlin", QDate(2024, 10, 26), 1, QTime(11, 0),
                {{"AutoCheckNow", "0"}, {"TimeRandomRange", "60"}, {"TimerMinutes", "10"}});
    all.last().zone = "Europe/Berlin";
    for (int i = 4; i < all.size(); ++i)
        all[i].weekends = true; // used every day, so that the days of the change have logins
    return all;
}

bool Number(const QString& text, int low, int high, int& value) {
    bool ok = false;
    value = text.toInt(&ok);
    return ok && value >= low && value <= high;
}

// "HH:MM-HH:MM[,...]": each session within the day, in order, none overlapping.
bool ParseSessions(const QString& text, QList<QPair<QTime, QTime>>& sessions) {
    sessions.clear();
    for (const QString& range : text.split(',')) {
        const QStringList ends = range.split('-');
        const QTime in = QTime::fromString(ends.value(0), "hh:mm");
        const QTime out = QTime::fromString(ends.value(1), "hh:mm");
        if (ends.size() != 2 || !in.isValid() || !out.isValid() || out <= in ||
            (!sessions.isEmpty() && in <= sessions.last().second))
            return false;
        sessions.append({in, out});
    }
    return true;
}

bool SetDesktop(Scenario& s, const QString& key, const QString& value) {
    if (key == "TZ") {
        s.zone = value;
        return QTimeZone(value.toUtf8()).isValid();
    }
    if (key == "start") {
        s.start = QDate::fromString(value, "yyyy-MM-dd");
        return s.start.isValid();
    }
    if (key == "sessions")
        return ParseSessions(value, s.sessions);
    if (key == "jitter")
        return Number(value, 0, 120, s.jitter);
    if (key == "weekends" && (value == "yes" || value == "no")) {
        s.weekends = value == "yes";
        return true;
    }
    return false;
}

// One KEY=VALUE; false for an unknown key or a bad value.
bool Apply(Scenario& s, const QString& word, QString& problem) {
    const int equals = word.indexOf('=');
    const QString key = word.left(equals), value = word.mid(equals + 1);
    bool known = true, good = true;
    // The judge counts on these: a check every TimerMinutes, a cycle of UpdateCycle days.
    const QMap<QString, QPair<int, int>> bounds{{"TimerMinutes", {1, 1440}},
                                                {"UpdateCycle", {0, 3650}}};
    int number = 0;
    if (bounds.contains(key) && !Number(value, bounds[key].first, bounds[key].second, number))
        good = false;
    else if (kUpdateSettings.contains(key))
        s.updateSetting[key] = value;
    else if (kUserSections.contains(key))
        s.user[kUserSections[key]][key] = value;
    else if (QStringList{"TZ", "start", "sessions", "jitter", "weekends"}.contains(key))
        good = SetDesktop(s, key, value);
    else
        known = false;
    if (!known)
        problem = QStringLiteral("unknown setting \"%1\"").arg(key);
    else if (!good)
        problem = QStringLiteral("bad value for %1: \"%2\"").arg(key, value);
    else
        s.given << word;
    return known && good;
}
} // namespace

QList<Scenario> StandardScenarios() {
    return Standard();
}

bool ScenariosFrom(const QStringList& settings, QList<Scenario>& scenarios, QString& problem) {
    scenarios = Standard();
    if (settings.isEmpty())
        return true;
    QStringList words = settings;
    QString name = "auto";
    if (!words.first().contains('='))
        name = words.takeFirst();
    Scenario chosen;
    for (const Scenario& s : scenarios)
        if (s.name == name)
            chosen = s;
    if (chosen.name.isEmpty()) {
        problem = QStringLiteral("unknown scenario \"%1\"").arg(name);
        return false;
    }
    for (const QString& word : words)
        if (!Apply(chosen, word, problem))
            return false;
    scenarios = {chosen};
    return true;
}

QList<Login> LoginsOf(const Scenario& scenario, int days) {
    QList<Login> logins;
    QRandomGenerator draw(qHash(scenario.name));
    const auto later = [&](const QTime& at) { // the jitter, within the same day
        const int seconds = scenario.jitter ? int(draw.bounded(scenario.jitter * 60)) : 0;
        return at.addSecs(qMin(seconds, at.secsTo(QTime(23, 58, 0))));
    };
    int day = 0;
    for (QDate date = scenario.start; day < days; date = date.addDays(1)) {
        if (!scenario.weekends && date.dayOfWeek() > 5)
            continue;
        ++day;
        QTime free(0, 0); // sessions of a day never overlap, whatever the jitter
        for (const auto& [in, out] : scenario.sessions) {
            const QTime login = qMax(later(in), free);
            const QTime logout = qMax(later(out), login.addSecs(60));
            free = logout.addSecs(60);
            logins.append({day, QDateTime(date, login).toString(kDateTime),
                           QDateTime(date, logout).toString(kDateTime)});
        }
    }
    return logins;
}

QMap<QString, QMap<QString, QString>> UserSettings(const Scenario& scenario) {
    auto user = scenario.user;
    QString& last = user["UpdateRecord"]["LastLaunchTime"];
    if (last.isEmpty())
        last = QDateTime(scenario.start.addDays(-scenario.lastDaysBefore), scenario.lastAt)
                   .toString(kDateTime);
    return user;
}

QStringList ArgumentsOf(const Scenario& scenario) {
    return QStringList{scenario.name} + scenario.given;
}
