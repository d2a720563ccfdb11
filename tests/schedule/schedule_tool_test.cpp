// ravel-schedule as a process on real folders: each verdict in text and JSON, nothing on disk
// changed, a running agent untouched, and the real agent then doing what was announced.
#include "../agent/AgentHarness.h"

#include <QDateTime>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace ::testing;

namespace {
const char kFormat[] = "yyyy-MM-dd hh:mm:ss";

struct ToolRun {
    int status;
    std::string out, err;
    QJsonObject json;
};

// The account the agent runs as: this one, or per-user the test account (the per-user agent
// refuses root, and the tool foresees that).
constexpr uid_t kAgentAccount = kPerUser ? kTestUid : 0;
// Per-user, the home of the programs run here as another account: absent, so that nothing is made
// in it, but named, so that the data folder derived from it is known.
const QString kHome = "/nonexistent/ravel-home";

// The temporary place a path lies in (its first level below the temporary folder); empty when
// it lies elsewhere.
QString PlaceHolding(const QString& path) {
    const QString temp = QDir::tempPath() + "/";
    return path.startsWith(temp) ? temp + path.mid(temp.size()).section('/', 0, 0) : QString();
}

// A program started as `uid` (0: this process's account) through setpriv; per-user with kHome
// as its home, on the places its program and first argument lie in, given to that account.
void StartAs(QProcess& process, uid_t uid, const QString& program, const QStringList& args,
             QProcessEnvironment environment = QProcessEnvironment::systemEnvironment()) {
    if (kPerUser) {
        for (const QString& path : {program, args.value(0)})
            if (uid != 0 && !PlaceHolding(path).isEmpty())
                GiveTree(PlaceHolding(path).toStdString(), {uid, uid, kHome.toStdString()});
        environment.insert("HOME", kHome);
        environment.remove("XDG_DATA_HOME");
    }
    process.setProcessEnvironment(environment);
    if (uid == 0)
        process.start(program, args);
    else
        process.start("setpriv",
                      QStringList{"--reuid=" + QString::number(uid),
                                  "--regid=" + QString::number(uid), "--clear-groups", program} +
                          args);
}

// Runs the tool as the agent's account, in the time zone given or the machine's.
ToolRun Inspect(QStringList args, const char* zone = nullptr) {
    QProcess tool;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (zone)
        environment.insert("TZ", zone);
    StartAs(tool, kAgentAccount, RAVEL_SCHEDULE_BUILT, args, environment);
    tool.waitForFinished(60000);
    ToolRun run{tool.exitCode(),
                tool.readAllStandardOutput().toStdString(),
                tool.readAllStandardError().toStdString(),
                {}};
    run.json = QJsonDocument::fromJson(QByteArray::fromStdString(run.out)).object();
    return run;
}

// Every file and folder under root: contents, mode and modification time in nanoseconds.
std::map<std::string, std::string> Snapshot(const QString& root) {
    std::map<std::string, std::string> tree;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    for (QString path = root; !path.isEmpty(); path = it.hasNext() ? it.next() : QString()) {
        struct stat s {};
        lstat(path.toLocal8Bit().constData(), &s);
        tree[path.toStdString()] = std::to_string(s.st_mode) + " " +
                                   std::to_string(s.st_mtim.tv_sec) + "." +
                                   std::to_string(s.st_mtim.tv_nsec) + " " +
                                   (S_ISREG(s.st_mode) ? ReadAll(path) : std::string());
    }
    return tree;
}

qint64 Seconds(const QJsonValue& moment) {
    return moment.isNull() ? -1
                           : QDateTime::fromString(moment.toString(), kFormat).toSecsSinceEpoch();
}

// Runs the tool in JSON and in text; checks that both agree and that nothing changed.
QJsonObject InspectUnchanged(const AgentPlace& place) {
    const auto before = Snapshot(place.root);
    const ToolRun json = Inspect({place.inst, "--json"}), text = Inspect({place.inst});
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(text.status, 0) << text.err;
    const std::string verdict = json.json["verdict"].toString().toStdString();
    EXPECT_THAT(text.out, HasSubstr("\nVerdict: " + verdict + "\n"));
    EXPECT_EQ(Snapshot(place.root), before) << "the tool changed the sandbox";
    return json.json;
}

std::string User(const AgentPlace& place, const char* section, const char* key) {
    return GetConfigure(section, key, "absent", place.dup + "UserInfo.dat")
        .toString()
        .toStdString();
}
} // namespace

namespace {
// One installed product per verdict: the settings and the user's schedule that lead to it, what
// the agent then logs, in order, and whether it launches.
struct VerdictRow {
    const char* verdict;
    Settings settings, user;
    std::vector<std::string> logged; // by the agent afterwards, in order
    bool launches;
};

std::vector<VerdictRow> VerdictRows() {
    const QString now = QDateTime::currentDateTime().toString(kFormat);
    const std::string ready = "Time is Ready, Try to Launch("; // the updater's path follows
    return {
        {"launch",
         {},
         {{"UpdateStrategy", {{"Strategy", "circle"}}}},
         {"AutoCheckNow = 1", ready},
         true},
        {"held", {{"UpdateSetting", {{"AutoCheckNow", "0"}}}}, {}, {"Sleep 600 Minutes"}, false},
        {"wait-delay",
         {{"UpdateSetting", {{"AutoCheckNow", "0"}}}},
         {{"DelayInfo", {{"DelayTime", "0"}}}},
         {"Delay to Time (", "Sleep 600 Minutes"},
         false},
        {"wait-cycle",
         {},
         {{"UpdateRecord", {{"LastLaunchTime", now}}}},
         {"Sleep 600 Minutes"},
         false},
        {"resume",
         {},
         {{"UpdateInfo", {{"LastStatus", "downloading"}}}},
         {"LastTime DownLoad broken, Continue now!"},
         true},
        {"never", {}, {{"UpdateStrategy", {{"Strategy", "never"}}}}, {"Sleep 600 Minutes"}, false},
        {"ends",
         {{"UpdateSetting", {{"RunWithSystem", "0"}}}},
         {{"UpdateStrategy", {{"Strategy", "never"}}}},
         {"Strategy was set to never, duplicate ravel will exit now!"},
         false},
        // A delay of round 1 that ran out while the agent was away: counted, then launched.
        {"launch",
         {{"UpdateSetting", {{"AutoCheckNow", "0"}}}},
         {{"DelayInfo", {{"DelayTime", "1000"}}}},
         {"Missed UpdateTime, DelayTimes=2", ready},
         true},
    };
}
} // namespace

TEST(Inspector, EachVerdictIsWhatTheAgentThenDoes) {
    const std::string ready = "Time is Ready, Try to Launch("; // the updater's path follows
    const std::vector<VerdictRow> rows = VerdictRows();
    for (const VerdictRow& row : rows) {
        SCOPED_TRACE(row.verdict + (" " + row.logged[0]));
        AgentPlace place;
        place.LayOutInstalled(row.settings, row.user);
        const QJsonObject json = InspectUnchanged(place);
        EXPECT_EQ(json["verdict"].toString().toStdString(), row.verdict);
        EXPECT_EQ(json["running"], false);
        EXPECT_EQ(json["missed"], row.logged[0].rfind("Missed", 0) == 0);
        EXPECT_EQ(json["earliest"].isNull(), !row.launches && row.verdict[0] != 'w');
        const qint64 at = Seconds(json["at"]), latest = Seconds(json["latest"]);

        const pid_t pid = place.StartDuplicate();
        if (row.verdict == std::string("ends")) {
            EXPECT_EQ(place.Reap(pid), 0);
        } else {
            ASSERT_TRUE(WaitUntil([&] { return place.Settled(); }));
            const QString args = place.inst + "Tidewater.args";
            EXPECT_EQ(row.launches ? WaitUntil([&] { return QFile::exists(args); })
                                   : QFile::exists(args),
                      row.launches);
            EXPECT_EQ(place.EndResident(pid), 0);
        }
        std::vector<std::string> logged = row.logged;
        for (std::string& message : logged) // completed with the updater or the drawn moment
            if (message.back() == '(')
                message +=
                    (message == ready ? place.updater
                                      : QDateTime::fromSecsSinceEpoch(
                                            std::stoll(User(place, "DelayInfo", "DelayTime")))
                                            .toString(kFormat)
                                            .toStdString()) +
                    ")";
        EXPECT_TRUE(place.Logged(logged));
        EXPECT_EQ(place.Logged({"File path is: " + place.updater}), row.launches);
        if (row.launches) { // launched at the announced check: now
            EXPECT_EQ(Seconds(json["earliest"]), at);
        }
        if (row.verdict == std::string("wait-delay")) { // drawn inside the announced window
            const qint64 drawn = std::stoll(User(place, "DelayInfo", "DelayTime"));
            EXPECT_THAT(drawn, AllOf(Gt(at), Le(at + 43200 + 5)));
            // Checks every 600 minutes from `at`: the draw lands by at + 43200, so the launch
            // comes at the check at + 36000 or the one at + 72000, the window announced.
            EXPECT_EQ(Seconds(json["earliest"]), at + 36000);
            EXPECT_EQ(latest, at + 72000);
        }
        if (&row == &rows[0]) { // the repair announced, then written by the agent
            EXPECT_EQ(
                QJsonDocument(json["repairs"].toArray()).toJson(QJsonDocument::Compact),
                R"([{"from":"circle","key":"Strategy","section":"UpdateStrategy","to":"cycle"}])");
            EXPECT_EQ(User(place, "UpdateStrategy", "Strategy"), "cycle");
        }
    }
}

TEST(Inspector, RepairsWarningsAndBadCommandLines) {
    AgentPlace place;
    place.LayOutInstalled(
        {{"UpdateSetting", {{"TimerMinutes", "0"}}}, {"LOG", {{"LogSwitch", "0"}}}},
        {{"DelayInfo", {{"DelayTimes", "7"}}}, {"UpdateStrategy", {{"UpdateCycle", ""}}}});
    QJsonObject json = InspectUnchanged(place);
    EXPECT_EQ(QJsonDocument(json["repairs"].toArray()).toJson(QJsonDocument::Compact).toStdString(),
              R"([{"from":null,"key":"UpdateCycle","section":"UpdateStrategy","to":"1"},)"
              R"({"from":"7","key":"DelayTimes","section":"DelayInfo","to":"1"}])");
    EXPECT_THAT(json["warnings"].toVariant().toStringList().join("\n").toStdString(),
                AllOf(HasSubstr("\"TimerMinutes\" is 0: the agent checks whenever it is idle"),
                      HasSubstr("\"LogSwitch\" is 0: the agent writes no log")));
    // A timer that is never armed; a malformed UserInfo.dat reads as defaults, with a warning.
    WriteConfigure("UpdateSetting", "TimerMinutes", "35792", place.inst + "Tidewater.dat");
    WriteAll(place.dup + "UserInfo.dat", "not xml");
    json = InspectUnchanged(place);
    EXPECT_THAT(json["warnings"].toVariant().toStringList().join("\n").toStdString(),
                AllOf(HasSubstr("the timer is never armed and only the first check runs"),
                      HasSubstr("UserInfo.dat holds no settings")));
    EXPECT_EQ(json["verdict"], "wait-cycle"); // a first cycle from now; no check after it
    EXPECT_TRUE(json["latest"].isNull());

    // No DuplicatePath: the folder the agent would make is named, not made.
    const QString derived =
        kPerUser ? kHome + "/.local/share/Demo_Product" : "/usr/local/zq_kt_userdata/Demo_Product";
    const bool existed = QFileInfo::exists(derived);
    WriteAll(place.inst + "Tidewater.dat", "");
    json = InspectUnchanged(place);
    EXPECT_EQ(json["user_info"], derived + "/Brightwell/UserInfo.dat");
    EXPECT_EQ(QFileInfo::exists(derived), existed);

    const std::string usage =
        "usage: ravel-schedule INSTALLED_FOLDER [--at \"yyyy-MM-dd hh:mm:ss\"] [--json | "
        "--prometheus [--output FILE]]\n";
    struct Bad {
        const char* what;
        QStringList args;
        std::string message; // on standard error
        int status;
    };
    const Bad bad[] = {
        {"a missing folder",
         {place.root + "none"},
         "ravel-schedule: " + place.root.toStdString() + "none: no such folder\n",
         1},
        {"not an installed folder",
         {place.data},
         "ravel-schedule: " + place.data.toStdString() +
             ": not an installed folder (neither ravel.app nor Tidewater.dat is there)\n",
         1},
        {"an impossible date",
         {place.inst, "--at", "2024-02-30 10:00:00"},
         "ravel-schedule: --at needs a local time as \"yyyy-MM-dd hh:mm:ss\", not \"2024-02-30 "
         "10:00:00\"\n",
         2},
        {"--at without its value",
         {place.inst, "--at"},
         "ravel-schedule: Missing value after '--at'.\n" + usage,
         2},
        {"an unknown option",
         {place.inst, "--frobnicate"},
         "ravel-schedule: Unknown option 'frobnicate'.\n" + usage,
         2},
        {"two folders",
         {place.inst, place.data},
         "ravel-schedule: unexpected argument \"" + place.data.toStdString() + "\"\n" + usage,
         2},
        {"no folder", {}, "ravel-schedule: " + usage, 2}};
    for (const Bad& row : bad) {
        const ToolRun run = Inspect(row.args);
        EXPECT_EQ(run.err, row.message) << row.what;
        EXPECT_EQ(run.status, row.status) << row.what;
        EXPECT_EQ(run.out, "") << row.what;
    }
}

// Help and version on standard output with status 0; "-h" is help, not a folder.
TEST(Inspector, HelpAndVersion) {
    for (const char* option : {"--help", "-h"}) {
        const ToolRun run = Inspect({option});
        EXPECT_EQ(run.status, 0) << option;
        EXPECT_THAT(run.out, AllOf(HasSubstr("[options] INSTALLED_FOLDER"),
                                   HasSubstr("--at <yyyy-MM-dd hh:mm:ss>"), HasSubstr("--json")))
            << option;
        EXPECT_EQ(run.err, "") << option;
    }
    const ToolRun version = Inspect({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "ravel-schedule " PROJECT_VERSION "\n");
}

TEST(Inspector, ARunningAgentIsSeenAndSurvives) {
    AgentPlace place;
    // A delay drawn for tomorrow, pending: the next check does not launch.
    const QString tomorrow = QString::number(QDateTime::currentSecsSinceEpoch() + 86400);
    place.LayOutInstalled({{"UpdateSetting", {{"AutoCheckNow", "0"}}}},
                          {{"DelayInfo", {{"DelayTime", tomorrow}}}});
    const pid_t pid = place.StartDuplicate();
    ASSERT_TRUE(WaitUntil([&] { return place.Settled(); }));
    const QJsonObject json = InspectUnchanged(place);
    EXPECT_EQ(json["running"], true);
    EXPECT_EQ(json["pid"].toInteger(), pid);
    EXPECT_EQ(json["port_listening"], true);
    const QString guard = kPerUser ? "socket " + place.data + "ravel.socket" : "127.0.0.1:31334";
    EXPECT_THAT(Inspect({place.inst}).out,
                HasSubstr(QString("\nAgent: running (PID %1); %2 listened on by PID %1\n")
                              .arg(pid)
                              .arg(guard)
                              .toStdString()));
    EXPECT_EQ(json["verdict"], "wait-delay");
    // For the next check by the timer: ten hours after the one logged.
    const QString last = json["last_check"][0].toString().section("][", 1).left(19);
    const qint64 next = QDateTime::fromString(last, kFormat).toSecsSinceEpoch() + 36000;
    EXPECT_EQ(Seconds(json["check_at"]), next);
    // Checks at next, next + 36000 and next + 72000: the delay, a day after the agent started
    // (at most seconds before the last check), is reached by the third of these.
    EXPECT_EQ(Seconds(json["earliest"]), next + 72000);
    EXPECT_THAT(json["last_check"].toVariant().toStringList().join("\n").toStdString(),
                AllOf(StartsWith("[Src/ravel("), HasSubstr("[ReadConfigInfo: Enter]-->"),
                      EndsWith("[Sleep 600 Minutes]-->")));
    EXPECT_FALSE(CommandLineOf(pid).empty()) << "the agent ended";
    EXPECT_FALSE(place.Logged({"Accept a connection, ravel exit."}));
    EXPECT_EQ(place.EndResident(pid), 0);
}

// Given the duplicate folder instead of the installed one, the tool says so and names the folder
// it was deployed from: the running duplicate's argument, or, once it has ended, its log's.
TEST(Inspector, ADuplicateFolderIsRefusedAndItsInstalledFolderNamed) {
    AgentPlace place;
    place.LayOutInstalled();
    ASSERT_EQ(place.RunInstalled(), 0);
    const pid_t pid = place.WaitForDuplicate();
    ASSERT_NE(pid, 0) << "no resident duplicate";
    const std::string expected = "ravel-schedule: " + place.dup.toStdString() +
                                 " is a duplicate folder, the agent's resident copy, not an "
                                 "installed folder: it was deployed from " +
                                 place.inst.toStdString() + "; run ravel-schedule " +
                                 place.inst.toStdString() + "\n";
    for (const char* when : {"running", "ended"}) {
        SCOPED_TRACE(when);
        const ToolRun run = Inspect({place.dup, "--json"});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, expected);
        EXPECT_EQ(run.out, "");
        if (when[0] == 'r') {
            EXPECT_EQ(place.EndResident(pid), 0);
        }
    }
    // Nothing tells where it came from.
    QFile::remove(place.data + "log/ravel.log");
    EXPECT_THAT(Inspect({place.dup}).err, HasSubstr("no running duplicate and no deployment line"));
}

// A last launch in the hour that repeats when clocks go back was its first occurrence: the cycle
// ends one day (86400 s) after it, which reads an hour earlier on the wall clock.
TEST(Inspector, ARepeatedHourLastLaunchEndsItsCycleADayAfterItsFirstOccurrence) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"America/New_York", "2024-11-03 01:20:00", "2024-11-04 00:20:00"},
        {"Europe/Berlin", "2024-10-27 02:20:00", "2024-10-28 01:20:00"}};
    for (const auto& [zone, lastLaunch, cycleEnd] : rows) {
        AgentPlace place;
        place.LayOutInstalled({}, {{"UpdateRecord", {{"LastLaunchTime", lastLaunch}}}});
        const ToolRun run = Inspect({place.inst, "--json", "--at", lastLaunch}, zone);
        EXPECT_EQ(run.status, 0) << zone << run.err;
        EXPECT_EQ(run.json["verdict"], "wait-cycle") << zone;
        EXPECT_EQ(run.json["cycle_end"].toString().toStdString(), cycleEnd) << zone;
    }
}

// The metrics for every verdict, read by Prometheus' own parser (Debian's
// python3-prometheus-client), agree with the JSON report; the file is written whole, and a file in
// a missing folder is refused.
TEST(Inspector, PrometheusMetricsAgreeWithTheJsonReport) {
    // Prints "name{labels} value" per sample, labels sorted, as the parser read them.
    const QString parse = "import sys\n"
                          "from prometheus_client.parser import text_string_to_metric_families\n"
                          "for f in text_string_to_metric_families(open(sys.argv[1]).read()):\n"
                          "    for s in f.samples:\n"
                          "        print(s.name, sorted(s.labels.items()), int(s.value))\n";
    for (const VerdictRow& row : VerdictRows()) {
        SCOPED_TRACE(row.verdict);
        AgentPlace place;
        place.LayOutInstalled(row.settings, row.user);
        const QString at = QDateTime::currentDateTime().toString(kFormat);
        const QString prom = place.root + "metrics.prom";
        const ToolRun json = Inspect({place.inst, "--json", "--at", at});
        const ToolRun run = Inspect({place.inst, "--prometheus", "--output", prom, "--at", at});
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, "");
        QProcess python;
        python.start(DEBIAN_PYTHON3, {"-c", parse, prom});
        ASSERT_TRUE(python.waitForFinished(60000));
        ASSERT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
        std::map<std::string, qint64> values; // by name and verdict label
        for (const QString& line :
             QString(python.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts)) {
            const QStringList fields = line.split(' ');
            const QString name = fields.first(), value = fields.last();
            EXPECT_TRUE(line.contains("('installed', '" + place.inst + "')")) << line.toStdString();
            const int verdict = line.indexOf("('verdict', '");
            values[(name +
                    (verdict < 0 ? QString() : ":" + line.mid(verdict + 13).section('\'', 0, 0)))
                       .toStdString()] = value.toLongLong();
        }
        const QJsonObject& j = json.json;
        const QJsonObject schedule = j["schedule"].toObject();
        EXPECT_EQ(values["ravel_agent_running"], j["running"].toBool() ? 1 : 0);
        EXPECT_EQ(values["ravel_last_launch_timestamp_seconds"], Seconds(schedule["last_launch"]));
        EXPECT_EQ(values["ravel_cycle_end_timestamp_seconds"], Seconds(j["cycle_end"]));
        for (const char* bound : {"earliest", "latest"}) {
            const std::string name =
                std::string("ravel_next_launch_") + bound + "_timestamp_seconds";
            EXPECT_EQ(values.count(name), j[bound].isNull() ? 0u : 1u) << bound;
            if (!j[bound].isNull()) {
                EXPECT_EQ(values[name], Seconds(j[bound])) << bound;
            }
        }
        EXPECT_EQ(values["ravel_delay_round"], schedule["delay_round"].toInteger());
        EXPECT_EQ(values["ravel_interrupted_run"], schedule["interrupted"].toBool() ? 1 : 0);
        for (const char* verdict :
             {"ends", "never", "held", "resume", "launch", "wait-cycle", "wait-delay"})
            EXPECT_EQ(values[std::string("ravel_verdict:") + verdict],
                      verdict == row.verdict ? 1 : 0)
                << verdict;
        EXPECT_EQ(values["ravel_repairs_pending"], j["repairs"].toArray().size());
        EXPECT_EQ(values["ravel_warnings"], j["warnings"].toArray().size());
        EXPECT_EQ(values.count("ravel_log_bytes"), 0u) << "no log yet";
    }
    // Escaped labels; a missing folder: refused, nothing written.
    AgentPlace place;
    place.LayOutInstalled();
    const QString odd = place.root + "a \"quoted\\ folder/";
    QDir().mkpath(odd);
    for (const QString& entry : QDir(place.inst).entryList(QDir::AllEntries | QDir::NoDotAndDotDot))
        QFile::rename(place.inst + entry, odd + entry);
    const ToolRun escaped = Inspect({odd, "--prometheus"});
    EXPECT_THAT(escaped.out,
                HasSubstr("ravel_agent_running{installed=\"" + place.root.toStdString() +
                          "a \\\"quoted\\\\ folder/\"} 0\n"));
    const ToolRun missing = Inspect({odd, "--prometheus", "--output", place.root + "none/m.prom"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("cannot write " + place.root.toStdString() + "none/m.prom"));
    EXPECT_FALSE(QFileInfo::exists(place.root + "none"));
}

namespace {
struct ProcessRun {
    int status;
    std::string out, err;
};

// A program run to its end, as the account `uid` (0: this one), as StartAs starts it.
ProcessRun RunAs(uid_t uid, const QString& program, const QStringList& args) {
    QProcess process;
    StartAs(process, uid, program, args);
    process.waitForFinished(120000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardOutput().toStdString(),
            process.readAllStandardError().toStdString()};
}

// The exit status of a child of this process (the resident copy a hand-over started, made ours
// by the harness) once it has ended; -1 when none ends in time.
int EndedChildStatus() {
    int status = 0;
    for (int i = 0; i < 2400; ++i, usleep(50000))
        if (waitpid(-1, &status, WNOHANG) > 0)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return -1;
}
} // namespace

// Each way the agent can end at start: ravel-schedule names it, with the agent's own messages, and
// the agent started on the same folder then ends with those messages and that status.
TEST(Inspector, AStartThatFailsIsForeseenWithTheAgentsOwnMessages) {
    const uid_t nobody = 65534; // may not make the shared data root
    struct Row {
        const char* what;
        std::function<void(AgentPlace&)> arrange;
        uid_t uid;
        bool resident; // the resident copy fails; the installed copy hands over with 0
        std::vector<std::string> messages;
    };
    const auto setting = [](const char* section, const char* key, const char* value) {
        return [=](AgentPlace& place) {
            WriteConfigure(section, key, value, place.inst + "Tidewater.dat");
        };
    };
    std::vector<Row> rows = {
        {"no data folder given, and the data root cannot be made",
         [](AgentPlace& place) {
             WriteConfigure("DupInfo", "DuplicatePath", "", place.inst + "Tidewater.dat");
             chmod(place.root.toLocal8Bit().constData(), 0755); // readable by the other account
         },
         nobody,
         false,
         {"MXPSCreatePath: Make directory failed.", "Duplicate path is empty or it's not a path."}},
        {"a data folder under a file",
         [](AgentPlace& place) {
             WriteConfigure("DupInfo", "DuplicatePath", place.inst + "libx.so/data/",
                            place.inst + "Tidewater.dat");
         },
         kAgentAccount,
         false,
         {"Duplicate path is empty or it's not a path."}},
        {"no updater without RunWithSystem",
         [&](AgentPlace& place) {
             setting("UpdateSetting", "RunWithSystem", "0")(place);
             QFile::remove(QString::fromStdString(place.updater));
         },
         kAgentAccount,
         false,
         {"ExeFile<%I%Tidewater.app/Contents/MacOS/Tidewater> not exist",
          "Original InitFilePath Failed"}},
        {"no UpdateInfo.dat without RunWithSystem",
         [&](AgentPlace& place) {
             setting("UpdateSetting", "RunWithSystem", "0")(place);
             QFile::remove(place.inst + "UpdateInfo.dat");
         },
         kAgentAccount,
         false,
         {"ConfigFile<%I%UpdateInfo.dat> not exist", "Original InitFilePath Failed"}},
        {"no UserInfo.dat without RunWithSystem",
         [&](AgentPlace& place) {
             setting("UpdateSetting", "RunWithSystem", "0")(place);
             QFile::remove(place.dup + "UserInfo.dat");
         },
         kAgentAccount,
         true,
         {"ConfigFile<%D%UserInfo.dat> not exist", "Duplicate InitFilePath Failed"}},
    };
    if (kPerUser) // run by root, the per-user agent refuses before it makes anything
        rows.push_back({"the per-user agent run by root",
                        [](AgentPlace&) {},
                        0,
                        false,
                        {"ravel: this is the per-user agent; it does not run as root. Start it "
                         "from the account it serves."}});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        AgentPlace place;
        place.LayOutInstalled();
        row.arrange(place);
        std::vector<std::string> messages;
        for (std::string message : row.messages) // the folders, as the agent names them
            messages.push_back(QString::fromStdString(message)
                                   .replace("%I%", place.inst)
                                   .replace("%D%", place.dup)
                                   .toStdString());
        const ProcessRun tool = RunAs(row.uid, RAVEL_SCHEDULE_BUILT, {place.inst, "--json"});
        const QJsonObject json =
            QJsonDocument::fromJson(QByteArray::fromStdString(tool.out)).object();
        ASSERT_EQ(tool.status, 0) << tool.err;
        EXPECT_EQ(json["verdict"], "fails-at-start");
        EXPECT_TRUE(json["earliest"].isNull());
        const QJsonObject failure = json["start_failure"].toObject();
        std::vector<std::string> announced;
        for (const QJsonValue& message : failure["messages"].toArray())
            announced.push_back(message.toString().toStdString());
        EXPECT_EQ(announced, messages);
        EXPECT_EQ(failure["status"], 255);

        const ProcessRun agent = RunAs(row.uid, QString::fromStdString(place.installedExe), {});
        EXPECT_EQ(agent.status, row.resident ? 0 : 255) << agent.err;
        if (row.resident) {
            EXPECT_EQ(EndedChildStatus(), 255) << "the resident copy";
        }
        if (failure["where"] == "standard error") {
            for (const std::string& message : messages)
                EXPECT_THAT(agent.err, HasSubstr(message + "\n"));
        } else {
            EXPECT_TRUE(place.Logged(messages));
        }
    }
    // No bundle in the folder: nothing starts an agent from it.
    AgentPlace place;
    place.LayOutInstalled();
    QDir(place.inst + "ravel.app").removeRecursively();
    const QJsonObject json = Inspect({place.inst, "--json"}).json;
    EXPECT_EQ(json["verdict"], "fails-at-start");
    EXPECT_THAT(json["reason"].toString().toStdString(),
                HasSubstr("ravel.app/Contents/MacOS/ravel is missing: nothing starts an agent"));
    EXPECT_TRUE(json["start_failure"]["status"].isNull());
}
