#include "AgentHarness.h"

#include "CommonFunctions.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

const char* const kUpdateInfo = "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
                                "<root>\r\n<components>\r\n"
                                "<component><main>1</main><displayname>Demo Product</displayname>"
                                "</component>\r\n</components>\r\n</root>\r\n";

void CopyExecutable(const QString& from, const QString& to) {
    QDir().mkpath(QFileInfo(to).path());
    QFile::remove(to);
    QFile::copy(from, to);
    QFile(to).setPermissions(QFile(to).permissions() | QFile::ExeOwner | QFile::ExeOther);
}

Settings Merged(Settings base, const Settings& extra) {
    for (const auto& [section, keys] : extra) {
        for (const auto& [key, value] : keys) {
            base[section][key] = value;
        }
    }
    return base;
}

} // namespace

bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

int WaitExit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ProcessGone(pid_t pid) {
    const std::string stat = ReadAll("/proc/" + QString::number(pid) + "/stat");
    const std::string::size_type paren = stat.rfind(") ");
    return paren == std::string::npos || stat.compare(paren + 2, 1, "Z") == 0;
}

std::vector<std::string> CommandLineOf(pid_t pid) {
    std::vector<std::string> args;
    std::istringstream cmdline(ReadAll("/proc/" + QString::number(pid) + "/cmdline"));
    for (std::string arg; !ProcessGone(pid) && std::getline(cmdline, arg, '\0');) {
        args.push_back(arg);
    }
    return args;
}

pid_t FindProcess(const std::string& argv0) {
    for (const QString& entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const std::vector<std::string> args = CommandLineOf(entry.toInt());
        if (entry.toInt() > 0 && !args.empty() && args[0] == argv0) {
            return entry.toInt();
        }
    }
    return 0;
}

bool PokePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(31334);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

::testing::AssertionResult LoggedInOrder(const std::vector<std::string>& messages,
                                         const std::vector<std::string>& expected) {
    auto at = messages.begin();
    for (const std::string& message : expected) {
        at = std::find(at, messages.end(), message);
        if (at == messages.end()) {
            auto failure = ::testing::AssertionFailure() << "not found in order: " << message;
            for (const std::string& m : messages) {
                failure << "\n  " << m;
            }
            return failure;
        }
        ++at;
    }
    return ::testing::AssertionSuccess();
}

std::string ReadAll(const QString& path) {
    std::ifstream file(path.toStdString(), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void WriteAll(const QString& path, const std::string& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    std::ofstream(path.toStdString(), std::ios::binary) << bytes;
}

void WriteSettings(const QString& path, const Settings& settings) {
    QDir().mkpath(QFileInfo(path).path());
    for (const auto& [section, keys] : settings) {
        for (const auto& [key, value] : keys) {
            WriteConfigure(section, key, value, path);
        }
    }
}

AgentPlace::AgentPlace() : temp(QDir::tempPath() + "/ravel-agent-XXXXXX") {
    // Detached starts (the duplicate, the updater) become our children instead of init's.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    root = temp.path() + "/";
    inst = root + "inst/";
    data = root + "data/";
    dup = data + "Brightwell/";
    errFile = root + "stderr.txt";
    installedExe = (inst + "ravel.app/Contents/MacOS/ravel").toStdString();
    duplicateExe = (dup + "ravel.app/Contents/MacOS/ravel").toStdString();
}

AgentPlace::~AgentPlace() {
    for (const std::string& exe : {installedExe, duplicateExe}) {
        while (const pid_t pid = FindProcess(exe)) {
            kill(pid, SIGKILL);
            WaitUntil([pid] { return ProcessGone(pid); });
        }
    }
    for (const pid_t pid : started) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

void AgentPlace::LayOutInstalled(const Settings& extra, const char* plugin) {
    CopyExecutable(RAVEL_EXE_BUILT, inst + "ravel.app/Contents/MacOS/ravel");
    CopyExecutable(TIDEWATER_EXE_BUILT, inst + "Tidewater.app/Contents/MacOS/Tidewater");
    if (plugin) {
        CopyExecutable(plugin, inst + "libPolicyProbe.dylib");
    }
    WriteAll(inst + "libalpha.dylib", "alpha 1");
    WriteAll(inst + "LibX.dylib", "upper case");
    WriteAll(inst + "libx.so", "not a dylib");
    WriteSettings(inst + "Tidewater.dat", Merged({{"DupInfo", {{"DuplicatePath", data}}},
                                                  {"UpdateSetting", {{"TimerMinutes", "600"}}}},
                                                 extra));
    WriteAll(inst + "UpdateInfo.dat", kUpdateInfo);
    WriteAll(inst + "Brightwell Data/Config.xml", "<?xml version=\"1.0\"?>\r\n<item value=\"1\"/>");
    WriteAll(inst + "Brightwell Data/rules.txt", "rules 1");
    WriteAll(inst + "UpdateInfo/info.txt", "info 1");
}

void AgentPlace::WriteUserInfo(const Settings& extra) {
    WriteSettings(dup + "UserInfo.dat",
                  Merged({{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "1"}}},
                          {"UpdateRecord", {{"LastLaunchTime", "2000-01-01 00:00:00"}}},
                          {"UpdateInfo", {{"LastStatus", "ready"}}},
                          {"DelayInfo", {{"DelayTimes", "1"}}}},
                         extra));
}

void AgentPlace::PlaceDuplicateExe() {
    CopyExecutable(RAVEL_EXE_BUILT, dup + "ravel.app/Contents/MacOS/ravel");
}

pid_t AgentPlace::Start(const std::string& program, const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out =
            open(errFile.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(out, 1);
        dup2(out, 2);
        execv(program.c_str(), args.data());
        _exit(127);
    }
    started.push_back(pid);
    return pid;
}

int AgentPlace::Reap(pid_t pid) {
    started.erase(std::remove(started.begin(), started.end(), pid), started.end());
    return WaitExit(pid);
}

int AgentPlace::RunInstalled() {
    return Reap(Start(installedExe, {installedExe}));
}

pid_t AgentPlace::StartDuplicate() {
    return Start(duplicateExe, {duplicateExe, inst.toStdString()});
}

pid_t AgentPlace::WaitForDuplicate() {
    pid_t pid = 0;
    WaitUntil([&] { return (pid = FindProcess(duplicateExe)) != 0; });
    return pid;
}

void AgentPlace::EndThroughPort(pid_t pid) {
    WaitUntil([] { return PokePort(); });
    WaitUntil([pid] { return ProcessGone(pid); });
}

std::vector<std::string> AgentPlace::LogMessages() const {
    static const std::regex line(
        R"(\[Src/ravel\(\d+\)\]\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]\t*\[(.*)\]-->)");
    std::vector<std::string> messages;
    std::istringstream log(ReadAll(data + "log/ravel.log"));
    std::smatch match;
    for (std::string text; std::getline(log, text);) {
        if (std::regex_match(text, match, line)) {
            messages.push_back(match[1]);
        } else if (text.rfind("----------------------", 0) != 0) {
            messages.push_back("<malformed> " + text);
        }
    }
    return messages;
}

bool AgentPlace::LogHas(const std::string& message) const {
    const std::vector<std::string> messages = LogMessages();
    return std::find(messages.begin(), messages.end(), message) != messages.end();
}
