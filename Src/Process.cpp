// Process-level services: the process-table test, starting programs, small utilities.
#include "EasyLog.h"
#include "FileHandle.h"
#include "LogTexts.h"
#include "Profile.h"
#include "ravel.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStringList>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const kProcessListFile = "/tmp/RAVEL_tmp";

// One whole line of any length, line break included; empty at end of file.
std::string ReadLine(FILE* file) {
    std::string line;
    if (!file) {
        return line;
    }
    int c;
    while ((c = std::fgetc(file)) != EOF) {
        line.push_back(static_cast<char>(c));
        if (c == '\n') {
            break;
        }
    }
    return line;
}

// Our own line always matches once, so "running" means a second match.
bool CountsAnotherInstance(FILE* file, const std::string& name) {
    int matches = 0;
    for (;;) {
        const std::string raw = ReadLine(file);
        const std::string text = raw.substr(0, raw.find('\0'));
        if (text.find(name) != std::string::npos && ++matches > 1) {
            return true;
        }
        if (text.empty()) {
            return false;
        }
    }
}

// The shared agent's test: "ps" through a shell, its output filtered into a file in /tmp.
bool CommandLineMentions(const QString& name) {
    const int ignored = std::system("ps -wwax | grep ravel | grep -v \"grep\" > /tmp/RAVEL_tmp");
    (void)ignored;
    FileHandle file = OpenFile(kProcessListFile, "r");
    const bool running = CountsAnotherInstance(file.get(), name.toLocal8Bit().toStdString());
    file.reset();
    std::remove(kProcessListFile);
    return running;
}

#if defined(__APPLE__)
// Another process of this account whose executable is `executable` (a canonical path), from
// "ps" run without a shell: "pid uid command" per line, the command being the executable's path.
bool RunsExecutable(const QString& executable) {
    QProcess ps;
    ps.start(QStringLiteral("/bin/ps"),
             {QStringLiteral("-axo"), QStringLiteral("pid=,uid=,comm=")});
    if (!ps.waitForFinished(30000))
        return false;
    for (const QByteArray& line : ps.readAllStandardOutput().split('\n')) {
        const QByteArray fields = line.trimmed();
        const int first = fields.indexOf(' ');
        const int second = fields.indexOf(' ', first + 1);
        if (first < 0 || second < 0)
            continue;
        const qint64 pid = fields.left(first).toLongLong();
        const qint64 uid = fields.mid(first + 1, second - first - 1).trimmed().toLongLong();
        const QString command = QFile::decodeName(fields.mid(second + 1).trimmed());
        if (pid != getpid() && uid == qint64(getuid()) &&
            QFileInfo(command).canonicalFilePath() == executable)
            return true;
    }
    return false;
}
#else
// Another process of this account whose executable is the file `agent`, from /proc: the owner of
// /proc/<pid> and the file its "exe" link leads to (readable only for the account's own
// processes, and gone for a zombie).
bool RunsExecutable(const struct stat& agent) {
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& entry : entries) {
        const qint64 pid = entry.toLongLong();
        if (pid <= 0 || pid == getpid())
            continue;
        const QByteArray process = QByteArrayLiteral("/proc/") + entry.toLatin1();
        struct stat owner, exe;
        if (::stat(process.constData(), &owner) == 0 && owner.st_uid == geteuid() &&
            ::stat((process + "/exe").constData(), &exe) == 0 && exe.st_dev == agent.st_dev &&
            exe.st_ino == agent.st_ino)
            return true;
    }
    return false;
}
#endif

// The per-user agent's test: the account's own processes that run the agent's executable.
bool RunsTheAgent(const QString& name) {
    struct stat agent;
    if (name.isEmpty() || ::stat(QFile::encodeName(name).constData(), &agent) != 0)
        return false;
#if defined(__APPLE__)
    return RunsExecutable(QFileInfo(name).canonicalFilePath());
#else
    return RunsExecutable(agent);
#endif
}

} // namespace

bool IsProcessRunning(const QString& name) {
    return kPerUser ? RunsTheAgent(name) : CommandLineMentions(name);
}

int ExecuteFile(const QString& path, const QString& args, bool wait) {
    RAVEL_LOG(logtext::kFilePath, path.toUtf8().constData());
    CopyDependLib();
    if (path.isEmpty()) {
        return 0;
    }
    // Quoting each blank keeps a path with blanks one word for the splitter.
    QString command = path;
    command.replace(" ", "\" \"");
    command += " " + args;
    QStringList words = QProcess::splitCommand(command);
    if (words.isEmpty()) {
        return 0;
    }
    const QString program = words.takeFirst();
    // The outcome is not examined: callers treat every start as done.
    if (wait) {
        QProcess::execute(program, words);
    } else {
        QProcess::startDetached(program, words);
    }
    return 0;
}

bool IsFileExist(const QString& path) {
    return QFileInfo(path).exists();
}

unsigned int ThreadSleep(unsigned int ms) {
    const unsigned int seconds = ms / 1000;
    return sleep(seconds ? seconds : 1);
}
