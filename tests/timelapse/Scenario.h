// One simulated desktop: the product's settings, the user's schedule, the time zone, and when
// the user logs in and out. Text in, plan out: nothing here reads a file or the clock.
#pragma once

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>

struct Scenario {
    QString name;
    QString zone = "UTC";  // TZ of every process of the desktop
    QDate start;           // the first day with a login
    bool weekends = false; // logins on Saturdays and Sundays too
    QList<QPair<QTime, QTime>> sessions{{QTime(8, 30), QTime(17, 30)}}; // login, logout
    int jitter = 30; // minutes: each login and logout comes up to this much later, drawn per day
    QMap<QString, QString> updateSetting;       // Tidewater.dat, section "UpdateSetting"
    QMap<QString, QMap<QString, QString>> user; // UserInfo.dat: section -> key -> value
    int lastDaysBefore = 1; // unless LastLaunchTime is given, the last run was this many days
    QTime lastAt;           // before the first day, at this time
    QStringList given;      // the settings as written, for the report
};

// One login: local date-times of the scenario's zone, given as "yyyy-MM-dd hh:mm:ss" texts.
struct Login {
    int day = 0; // 1 for the first day with a login
    QString login, logout;
};

// The scenarios that run when none is named: AutoCheckNow 1; AutoCheckNow 0 with a range inside
// and one beyond the working day; TimerMinutes 5 with a two-day cycle; a daylight-saving change
// in America/New_York and one in Europe/Berlin.
QList<Scenario> StandardScenarios();

// The scenarios a command line's settings name (their syntax: scripts/timelapse.sh --help):
// every standard one when
// `settings` is empty, else one desktop: the standard scenario its first word names, or "auto",
// changed by each KEY=VALUE. False with a message in `problem` for an unknown word or key, or a
// value out of its range.
bool ScenariosFrom(const QStringList& settings, QList<Scenario>& scenarios, QString& problem);

// The first `days` days with a login, in order, each with its sessions; the jitter is drawn from
// a generator seeded by the scenario's name, so a scenario runs the same every time.
QList<Login> LoginsOf(const Scenario& scenario, int days);

// UserInfo.dat as laid out: the scenario's values, with LastLaunchTime unless given.
QMap<QString, QMap<QString, QString>> UserSettings(const Scenario& scenario);

// The words that give the scenario back to ScenariosFrom: its name, then every setting given.
QStringList ArgumentsOf(const Scenario& scenario);
