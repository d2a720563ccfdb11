// timelapse [--days N] [--speed X] [--out DIR] [SCENARIO] [KEY=VALUE...]: the real agent through
// simulated days on a fast clock, one desktop per scenario, each in private namespaces of its own,
// all at once. Status 0 when every login passed, 1 when one did not, 2 for a bad command line, 77
// where private namespaces cannot be made (not root).
// Two roles for its own use: --desktop FOLDER ... (one desktop, inside its namespaces) and
// --session INSTALLED DATA DAY LOGOUT (one login, under the fast clock).
#include "AgentHarness.h"
#include "Desktop.h"
#include "Session.h"

#include <cstdio>

namespace {
const char kUsage[] =
    "usage: timelapse [--days N] [--speed X] [--out DIR] [SCENARIO] [KEY=VALUE...]";

struct Options {
    int days = 2, speed = 600;
    QString out = RAVEL_BINARY_DIR "/timelapse/", desktop;
    QStringList settings;
};

int Usage(const QString& problem) {
    std::fprintf(stderr, "timelapse: %s\n%s\n", qPrintable(problem), kUsage);
    return 2;
}

bool Number(const char* text, int low, int high, int& value) {
    char* end = nullptr;
    const long n = std::strtol(text, &end, 10);
    value = int(n);
    return end && *end == '\0' && n >= low && n <= high;
}

// The options, or the status to end with (0 after --help).
int Parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const QString word = argv[i];
        const bool valued = i + 1 < argc;
        if (word == "--help" || word == "-h") {
            std::printf("%s\nThe options, scenarios and settings: scripts/timelapse.sh --help\n",
                        kUsage);
            return 0;
        } else if (word == "--days" && valued) {
            if (!Number(argv[++i], 1, 60, o.days))
                return Usage(QStringLiteral("--days takes 1 to 60, not \"%1\"").arg(argv[i]));
        } else if (word == "--speed" && valued) {
            if (!Number(argv[++i], 60, 3600, o.speed))
                return Usage(QStringLiteral("--speed takes 60 to 3600, not \"%1\"").arg(argv[i]));
        } else if (word == "--out" && valued) {
            o.out = QDir(argv[++i]).absolutePath() + "/";
        } else if (word == "--desktop" && valued) {
            o.desktop = argv[++i];
        } else if (word.startsWith("--")) {
            return Usage(QStringLiteral("unknown option \"%1\"").arg(word));
        } else {
            o.settings << word;
        }
    }
    return -1;
}

// sh tests/isolated.sh SOURCE BUILD [FOLDER] -- program...
std::vector<std::string> Isolated(const QString& folder, const std::vector<std::string>& program) {
    std::vector<std::string> args{"sh",
                                  RAVEL_SOURCE_DIR "/tests/isolated.sh",
                                  RAVEL_SOURCE_DIR,
                                  RAVEL_BINARY_DIR,
                                  folder.toStdString(),
                                  "--"};
    args.insert(args.end(), program.begin(), program.end());
    return args;
}

int Wait(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Every scenario on a desktop of its own, at once; their reports, then their summaries.
int Drive(const Options& o, const QList<Scenario>& scenarios, const std::string& self) {
    QDir().mkpath(o.out);
    if (Wait(StartProcess("/bin/sh", Isolated(o.out, {"true"}), "/dev/null", "/dev/null")) != 0) {
        std::printf("skipped: private namespaces cannot be made here (run as root)\n");
        return 77;
    }
    std::vector<pid_t> desktops;
    for (const Scenario& s : scenarios) {
        const QString folder = o.out + s.name + "/";
        QDir(folder).removeRecursively();
        QDir().mkpath(folder);
        std::vector<std::string> program{self,
                                         "--desktop",
                                         folder.toStdString(),
                                         "--days",
                                         std::to_string(o.days),
                                         "--speed",
                                         std::to_string(o.speed)};
        for (const QString& word : ArgumentsOf(s))
            program.push_back(word.toStdString());
        desktops.push_back(StartProcess("/bin/sh", Isolated(o.out, program), folder + "report.txt",
                                        "/dev/stderr"));
    }
    bool passed = true;
    for (pid_t pid : desktops)
        passed &= Wait(pid) == 0;
    QString summaries;
    for (const Scenario& s : scenarios) {
        std::printf("%s\n", ReadAll(o.out + s.name + "/report.txt").c_str());
        const std::string summary = ReadAll(o.out + s.name + "/summary.txt");
        summaries += summary.empty() ? s.name + ": no report (the desktop failed)\n"
                                     : QString::fromStdString(summary);
    }
    std::printf("== summary (speed %dx, logs and records in %s)\n%s", o.speed, qPrintable(o.out),
                qPrintable(summaries));
    return passed ? 0 : 1;
}
} // namespace

int main(int argc, char** argv) {
    if (argc == 6 && std::string(argv[1]) == "--session")
        return RunSession({argv[2], argv[3], argv[4], QString(argv[5]).toLongLong()});
    Options o;
    if (const int status = Parse(argc, argv, o); status >= 0)
        return status;
    QList<Scenario> scenarios;
    QString problem;
    if (!ScenariosFrom(o.settings, scenarios, problem))
        return Usage(problem);
    // Found once: a rebuild during a run replaces the file, and the link then names no file.
    const QString self = QFileInfo("/proc/self/exe").canonicalFilePath();
    if (o.desktop.isEmpty())
        return Drive(o, scenarios, self.toStdString());
    return RunDesktop({scenarios.first(), o.days, o.speed, o.desktop, self});
}
