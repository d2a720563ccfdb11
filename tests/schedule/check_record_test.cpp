// What the agent's schedule does over thousands of generated settings files and moments, kept as
// digests: the files written, the log (line numbers masked), the end of the process and the
// generator's next draw. The digests were recorded from the agent as it stood before its decision
// core was rewritten; any change to a byte, a line, an exit or a draw shows here, with the block
// of cases it is in. RAVEL_RECORD_DUMP=FILE writes the whole readable record to FILE.
#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"
#include "ravel.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
constexpr int kCases = 2400;
constexpr int kBlock = 100;

// splitmix64: the cases' own generator (the agent uses std::rand).
class Generator {
public:
    explicit Generator(uint64_t seed) : state_(seed) {}
    uint64_t Next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    uint64_t Below(uint64_t count) { return Next() % count; }
    template <size_t N> const char* Pick(const char* const (&items)[N]) { return items[Below(N)]; }

private:
    uint64_t state_;
};

const char kAbsent[] = "<absent>";

// A number-like setting: absent, empty, typical, zero, huge, negative or not a number.
QString NumberText(Generator& g, const char* typical) {
    static const char* const odd[] = {kAbsent,       "",   "0",   "4294967295", "4294967296",
                                      "99999999999", "-1", "abc", " 5",         "0x10",
                                      "1.5",         "2",  "3"};
    return QString::fromLatin1(g.Below(3) ? typical : g.Pick(odd));
}

QString DateText(qint64 seconds) {
    return QDateTime::fromSecsSinceEpoch(seconds).toString("yyyy-MM-dd hh:mm:ss");
}

struct Case {
    std::map<std::pair<QString, QString>, QString> tidewater, user; // (section, key) -> text
    enum { Normal, Missing, NotXml } userFile = Normal;
    qint64 start = 0, later = 0;
    unsigned seed = 0;
};

Case MakeCase(Generator& g) {
    Case c;
    c.start = 946684800 + qint64(g.Below(1400000000)); // 2000 to 2044
    c.later = c.start + qint64(g.Below(3 * 86400 + 1));
    c.seed = unsigned(g.Next());
    static const char* const timers[] = {"1", "60", "600", "0", "35792"};
    static const char* const flags[] = {"1", "0", "true", "false", "", kAbsent, "yes"};
    static const char* const ranges[] = {"720", "1", "0", "240", "71582789"};
    const auto set = [&c](const char* key) -> QString& {
        return c.tidewater[{"UpdateSetting", key}];
    };
    set("TimerMinutes") = NumberText(g, g.Pick(timers));
    set("RunWithSystem") = g.Pick(flags);
    set("AutoCheckNow") = NumberText(g, g.Below(2) ? "0" : "1");
    set("TimeRandomRange") = NumberText(g, g.Pick(ranges));
    set("ConfigCycleDefault") = NumberText(g, "7");

    static const char* const strategies[] = {"cycle", "cycle",  "cycle", "never",
                                             "Never", "circle", "",      kAbsent};
    static const char* const statuses[] = {
        "querying", "downloading", "downloaded", "ready", "ready", "ready", "0", "junk", kAbsent};
    static const char* const oddDates[] = {
        "0", "junk", "2024-1-5 1:2:3", "2024-02-30 10:00:00", "2024-03-05T10:00:00", "", kAbsent};
    static const char* const cycles[] = {"1", "1", "7", "2"};
    c.user[{"UpdateStrategy", "Strategy"}] = g.Pick(strategies);
    c.user[{"UpdateStrategy", "UpdateCycle"}] = NumberText(g, g.Pick(cycles));
    const qint64 cycle = 86400 * (1 + qint64(g.Below(7)));
    // Anywhere, in the future, about a cycle ago, long over, or an odd text.
    const uint64_t last = g.Below(5);
    c.user[{"UpdateRecord", "LastLaunchTime"}] =
        last == 0   ? DateText(946684800 + g.Below(1400000000))
        : last == 1 ? DateText(c.start + 1 + g.Below(86400 * 30))
        : last == 2 ? DateText(c.start - cycle - 600 + qint64(g.Below(1200)))
        : last == 3 ? DateText(c.start - cycle - g.Below(86400 * 9))
                    : g.Pick(oddDates);
    c.user[{"UpdateInfo", "LastStatus"}] = g.Pick(statuses);
    // A number-like text, ran out, still ahead, 1, past the 32-bit clock, or absent.
    const uint64_t delay = g.Below(7);
    c.user[{"DelayInfo", "DelayTime"}] =
        delay == 1   ? QString::number(c.start - qint64(g.Below(86400 * 2)))
        : delay == 2 ? QString::number(c.start + qint64(g.Below(86400 * 2)))
        : delay == 3 ? QString("1")
        : delay == 4 ? QString::number(4294967296LL + g.Below(100000))
        : delay == 5 ? QString(kAbsent)
                     : NumberText(g, "0");
    static const char* const rounds[] = {"1", "1", "2", "3", "0", "4", "junk", "", kAbsent};
    c.user[{"DelayInfo", "DelayTimes"}] = g.Pick(rounds);
    const uint64_t file = g.Below(20);
    c.userFile = file == 0 ? Case::Missing : file == 1 ? Case::NotXml : Case::Normal;
    return c;
}

QByteArray ReadBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

void WriteSettings(const QString& path,
                   const std::map<std::pair<QString, QString>, QString>& settings) {
    for (const auto& [place, text] : settings)
        if (text != QLatin1String(kAbsent))
            WriteConfigure(place.first, place.second, text, path);
}

// One case, in its folder `root`: what it leaves behind there is read by the parent. A check may
// end the process (status 0); a case that runs to its end leaves "finished" behind.
void RunCase(const Case& c, const QString& root) {
    const QString org = root + "/org/", data = root + "/data/";
    QDir().mkpath(org);
    QDir().mkpath(data + "Brightwell");
    WriteConfigure("DupInfo", "DuplicatePath", data, org + "Tidewater.dat");
    WriteSettings(org + "Tidewater.dat", c.tidewater);
    const QString user = data + "Brightwell/UserInfo.dat";
    if (c.userFile == Case::NotXml) {
        QFile file(user);
        file.open(QIODevice::WriteOnly);
        file.write("plain text, no settings\n");
    } else if (c.userFile == Case::Normal) {
        WriteSettings(user, c.user);
    }
    std::tie(g_qstrOrgPath, g_qstrOrgDat, g_qstrUserInfoIniPath, g_qstrTidewaterIniPath) =
        std::tuple(org, org + "UpdateInfo.dat", user, org + "Tidewater.dat");
    g_qstrTidewaterExePath = QString(); // a launch logs, but starts no process
    g_EazyLog.ResetForTesting();
    g_EazyLog.Init("ravel.log");
    std::ofstream steps((root + "/steps").toStdString(), std::ios::binary);
    const auto step = [&](const char* name) {
        steps << "== " << name << "\n" << ReadBytes(user).toStdString() << "\n";
        steps.flush();
    };
    SetClockForTesting([at = c.start] { return QDateTime::fromSecsSinceEpoch(at); });
    std::srand(c.seed);
    CheckMissed();
    step("start");
    RunCheck();
    step("first check");
    SetClockForTesting([at = c.later] { return QDateTime::fromSecsSinceEpoch(at); });
    RunCheck();
    step("later check");
    steps << "== next draw " << std::rand() << "\n";
    steps.flush();
    QFile(root + "/finished").open(QIODevice::WriteOnly);
}

QString CaseRoot(const QString& dir, int index) {
    return dir + "/case" + QString::number(index);
}

// Runs the cases from `first` on in one child process, until one of them ends it; returns the
// child's exit status.
int RunCasesFrom(const std::vector<Case>& cases, int first, const QString& dir, const char* zone) {
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("TZ", zone, 1);
        tzset();
        for (size_t i = size_t(first); i < cases.size(); ++i)
            RunCase(cases[i], CaseRoot(dir, int(i)));
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    while (waitpid(-1, nullptr, WNOHANG) > 0) { // whatever it left behind
    }
    return status;
}

// The record of one case: the steps, the log with line numbers and the root masked, the
// settings file of the installed folder, and how the process ended: each case's process used to
// end with status 7 after a whole case (writing the log's end banner), or where a check ended it.
std::string RecordCase(const QString& root, int exitStatus) {
    const bool finished = QFile::exists(root + "/finished");
    QString log = QString::fromUtf8(ReadBytes(root + "/data/log/ravel.log"));
    if (finished && log != QLatin1String("<missing>"))
        log += QStringLiteral("----------------------End Log-----------------------------------\n");
    log.replace(QRegularExpression("\\[Src/ravel\\(\\d+\\)\\]"), "[Src/ravel(#)]");
    const QString end = finished || WIFEXITED(exitStatus)
                            ? "status " + QString::number(finished ? 7 : WEXITSTATUS(exitStatus))
                            : "signal " + QString::number(WTERMSIG(exitStatus));
    QString text =
        QString::fromUtf8(ReadBytes(root + "/steps")) + "== log\n" + log + "== Tidewater.dat\n" +
        QString::fromUtf8(ReadBytes(root + "/org/Tidewater.dat")) + "\n== end " + end + "\n";
    return text.replace(root, "<root>").toStdString();
}

// Every case's record, in order: the cases run in as few processes as the checks that end one
// allow.
std::vector<std::string> RecordCases(const std::vector<Case>& cases, const char* zone) {
    QTemporaryDir dir;
    std::vector<std::string> records;
    while (records.size() < cases.size()) {
        const int first = int(records.size());
        const int status = RunCasesFrom(cases, first, dir.path(), zone);
        for (int i = first; i < int(cases.size()); ++i) {
            const QString root = CaseRoot(dir.path(), i);
            if (!QFile::exists(root + "/steps") && !QFile::exists(root + "/finished"))
                break; // not reached: the case before ended the process
            records.push_back(RecordCase(root, status));
            if (!QFile::exists(root + "/finished"))
                break; // this case ended the process
        }
        if (int(records.size()) == first) // the process ended before any case: record its end
            records.push_back(RecordCase(CaseRoot(dir.path(), first), status));
    }
    return records;
}

uint64_t Fnv1a(const std::string& bytes, uint64_t hash = 14695981039346656037ULL) {
    for (const unsigned char byte : bytes)
        hash = (hash ^ byte) * 1099511628211ULL;
    return hash;
}

// The digest of each block of cases in `zone`, and of all of them.
std::vector<uint64_t> RecordZone(const char* zone, uint64_t seed) {
    Generator g(seed);
    std::vector<Case> cases;
    for (int i = 0; i < kCases; ++i)
        cases.push_back(MakeCase(g));
    const std::vector<std::string> records = RecordCases(cases, zone);
    const char* dump = std::getenv("RAVEL_RECORD_DUMP");
    std::ofstream out;
    if (dump)
        out.open(std::string(dump) + "." + QString(zone).replace('/', '_').toStdString(),
                 std::ios::binary);
    std::vector<uint64_t> digests(kCases / kBlock + 1, 14695981039346656037ULL);
    for (int i = 0; i < kCases; ++i) {
        digests[i / kBlock] = Fnv1a(records[size_t(i)], digests[i / kBlock]);
        digests.back() = Fnv1a(records[size_t(i)], digests.back());
        if (dump)
            out << "######## case " << i << "\n" << records[size_t(i)];
    }
    return digests;
}

void ExpectRecord(const char* zone, uint64_t seed, const std::vector<uint64_t>& expected) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // what a case leaves behind is ours to wait for
    const std::vector<uint64_t> digests = RecordZone(zone, seed);
    if (std::getenv("RAVEL_RECORD_PRINT")) {
        for (const uint64_t digest : digests)
            std::printf("0x%016llxULL,\n", static_cast<unsigned long long>(digest));
    }
    ASSERT_EQ(digests.size(), expected.size());
    for (size_t block = 0; block + 1 < digests.size(); ++block)
        EXPECT_EQ(digests[block], expected[block])
            << zone << ": cases " << block * kBlock << " to " << (block + 1) * kBlock - 1;
    EXPECT_EQ(digests.back(), expected.back()) << zone << ": all cases";
}
} // namespace

TEST(RecordedSchedule, Utc) {
    ExpectRecord("UTC", 1,
                 {
                     0x327d20727e19fe34ULL, 0x48955b9f2e8c84bbULL, 0x62f83f44a1d3fea2ULL,
                     0x12e5c56588995fe0ULL, 0xb1417731e3c6ef6cULL, 0xc079b422e0df4704ULL,
                     0x5ac607ee724cc9e9ULL, 0x2618cc0fbb4fd8ecULL, 0xac2f7613b87b6d1aULL,
                     0x90d3c20351ee3ec6ULL, 0x8f47601bc2eb9aadULL, 0x9c124f53a98212a3ULL,
                     0x674808116077281fULL, 0x9690abe49ecbcdf5ULL, 0xdb63ca402efc882bULL,
                     0x0e7456e354b66a17ULL, 0x2f7fd057a478046bULL, 0xf5d12f36192b787dULL,
                     0xaf395f52d1936786ULL, 0x0d11108a9987ef4aULL, 0x9661082dffad47c4ULL,
                     0x937f019969238799ULL, 0xec195ad39ba43e12ULL, 0xe3a1821f8c67a63fULL,
                     0x5bbca9c66eacee59ULL,
                 });
}

TEST(RecordedSchedule, Kolkata) {
    ExpectRecord("Asia/Kolkata", 2,
                 {
                     0x5f1bd5732922b7ccULL, 0x8925902ad4c0c54aULL, 0x6ee1bade5f24e542ULL,
                     0x6ced968640576358ULL, 0xe06c50d5a3140632ULL, 0xf1131a9ac3eebbd8ULL,
                     0x8f70372a17b02bbbULL, 0x4a6e64f01f319b27ULL, 0x168745bca77373d1ULL,
                     0x06beb4102294d123ULL, 0x824706e28417be71ULL, 0x4ffd589485632d9eULL,
                     0x934dede5ba12cbd8ULL, 0x6192883b3e60ac05ULL, 0x1876c647c75d3b56ULL,
                     0x2390db953cf87639ULL, 0x1f767b7acbc0cae2ULL, 0x9359489e8796dd7aULL,
                     0x64fca5c35314f220ULL, 0xe7101d8ff5e1768cULL, 0x4e32ffc0e9eaee99ULL,
                     0x2520047d41d09168ULL, 0xbd5e9dd97632d342ULL, 0x308bafa55ecfb35cULL,
                     0x120d044deb517645ULL,
                 });
}
