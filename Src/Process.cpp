// Process-level services: the process-table test, starting programs, small utilities.
#include "EasyLog.h"
#include "FileHandle.h"
#include "LogTexts.h"
#include "ravel.h"

#include <QFileInfo>
#include <QProcess>
#include <QStringList>

#include <cstdio>
#include <cstdlib>
#include <string>
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

} // namespace

bool IsProcessRunning(const QString& name) {
    const int ignored = std::system("ps -wwax | grep ravel | grep -v \"grep\" > /tmp/RAVEL_tmp");
    (void)ignored;
    FileHandle file = OpenFile(kProcessListFile, "r");
    const bool running = CountsAnotherInstance(file.get(), name.toLocal8Bit().toStdString());
    file.reset();
    std::remove(kProcessListFile);
    return running;
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
