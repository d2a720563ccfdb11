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
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

const char* const kUpdateInfo = "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
                                "<root>\r\n<components>\r\n"
                                "<component><main>0</main><displayname>Helper</displayname>"
                                "</component>\r\n"
                                "<component><main>1</main><displayname>Demo Product</displayname>"
                                "<name>demo</name></component>\r\n"
                                "</components>\r\n</root>\r\n";

void CopyExecutable(const QString& from, const QString& to) {
    QDir().mkpath(QFileInfo(to).path());
    QFile::remove(to);
    QFile::copy(from, to);
    QFile(to).setPermissions(QFile(to).permissions() | QFile::ExeOwner | QFile::ExeGroup |
                             QFile::ExeOther);
}

// "[Src/ravel(N)][yyyy-MM-dd hh:mm:ss]<tabs>[message]-->"; anything else is reported as such.
std::string MessageOf(const std::string& line) {
    const std::string head = "[Src/ravel(";
    const std::string tail = "]-->";
    const std::string::size_type at = line.find(")][");
    if (line.rfind(head, 0) != 0 || at == std::string::npos || line.size() < at + 24 ||
        line.compare(line.size() - tail.size(), tail.size(), tail) != 0) {
        return "<malformed> " + line;
    }
    std::string::size_type start = at + 3 + 19;  // past the time stamp
    if (line[start] != ']') {
        return "<malformed> " + line;
    }
    ++start;
    while (line[start] == '\t') {
        ++start;
    }
    if (line[start] != '[') {
        return "<malformed> " + line;
    }
    return line.substr(start + 1, line.size() - tail.size() - start - 1);
}

} // namespace

bool WaitUntil(const std::function<bool()>& condition, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

pid_t Spawn(const std::string& program, const std::vector<std::string>& argv,
            const std::string& errFile) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(errFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        execv(program.c_str(), args.data());
        _exit(127);
    }
    return pid;
}

int WaitExit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ProcessGone(pid_t pid) {
    if (kill(pid, 0) != 0) {
        return true;
    }
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::string::size_type paren = text.rfind(") ");
    return paren == std::string::npos || text.compare(paren + 2, 1, "Z") == 0;
}

std::vector<std::string> CommandLineOf(pid_t pid) {
    std::vector<std::string> args;
    if (ProcessGone(pid)) {
        return args;
    }
    std::istringstream cmdline(ReadAll("/proc/" + QString::number(pid) + "/cmdline"));
    for (std::string arg; std::getline(cmdline, arg, '\0');) {
        args.push_back(arg);
    }
    return args;
}

pid_t FindProcess(const std::string& exe, std::vector<std::string>* argv) {
    for (const QString& entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        if (!isPid) {
            continue;
        }
        const std::vector<std::string> args = CommandLineOf(pid);
        if (!args.empty() && args[0] == exe) {
            if (argv) {
                *argv = args;
            }
            return pid;
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
            auto failure = ::testing::AssertionFailure() << "missing or out of order: \"" << message
                                                         << "\"\nlog:";
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
    root = temp.path() + "/";
    inst = root + "inst/";
    data = root + "data/";
    dup = data + "Brightwell/";
    errFile = root + "stderr.txt";
}

AgentPlace::~AgentPlace() {
    for (const QString& exe : {inst + "ravel.app/Contents/MacOS/ravel",
                               dup + "ravel.app/Contents/MacOS/ravel"}) {
        while (const pid_t pid = FindProcess(exe.toStdString())) {
            kill(pid, SIGKILL);
            WaitUntil([pid] { return ProcessGone(pid); });
        }
    }
    for (const pid_t pid : started) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

void AgentPlace::LayOutInstalled(const Settings& tidewater, const char* plugin) {
    CopyExecutable(RAVEL_EXE_BUILT, inst + "ravel.app/Contents/MacOS/ravel");
    CopyExecutable(TIDEWATER_EXE_BUILT, inst + "Tidewater.app/Contents/MacOS/Tidewater");
    if (plugin) {
        CopyExecutable(plugin, inst + "libPolicyProbe.dylib");
    }
    WriteAll(inst + "libalpha.dylib", "alpha 1");
    WriteAll(inst + "LibX.dylib", "upper case");
    WriteAll(inst + "libx.so", "not a dylib");
    Settings settings = {{"DupInfo", {{"DuplicatePath", data}}},
                         {"UpdateSetting", {{"TimerMinutes", "600"}}}};
    for (const auto& [section, keys] : tidewater) {
        for (const auto& [key, value] : keys) {
            settings[section][key] = value;
        }
    }
    WriteSettings(inst + "Tidewater.dat", settings);
    WriteAll(inst + "UpdateInfo.dat", kUpdateInfo);
    WriteAll(inst + "Brightwell Data/Config.xml", "<?xml version=\"1.0\"?>\r\n<item value=\"1\"/>\r\n");
    WriteAll(inst + "Brightwell Data/rules.txt", "rules 1");
    WriteAll(inst + "UpdateInfo/info.txt", "info 1");
}

void AgentPlace::WriteUserInfo(const Settings& extra) {
    Settings settings = {{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "1"}}},
                         {"UpdateRecord", {{"LastLaunchTime", "2000-01-01 00:00:00"}}},
                         {"UpdateInfo", {{"LastStatus", "ready"}}},
                         {"DelayInfo", {{"DelayTimes", "1"}}}};
    for (const auto& [section, keys] : extra) {
        for (const auto& [key, value] : keys) {
            settings[section][key] = value;
        }
    }
    WriteSettings(dup + "UserInfo.dat", settings);
}

void AgentPlace::PlaceDuplicateExe() {
    CopyExecutable(RAVEL_EXE_BUILT, dup + "ravel.app/Contents/MacOS/ravel");
}

int AgentPlace::RunInstalled() {
    const std::string exe = (inst + "ravel.app/Contents/MacOS/ravel").toStdString();
    return WaitExit(Spawn(exe, {exe}, errFile.toStdString()));
}

pid_t AgentPlace::Start(const std::string& program, const std::vector<std::string>& argv) {
    const pid_t pid = Spawn(program, argv, errFile.toStdString());
    started.push_back(pid);
    return pid;
}

int AgentPlace::Reap(pid_t pid) {
    started.erase(std::remove(started.begin(), started.end(), pid), started.end());
    return WaitExit(pid);
}

pid_t AgentPlace::StartDuplicate() {
    const std::string exe = (dup + "ravel.app/Contents/MacOS/ravel").toStdString();
    return Start(exe, {exe, inst.toStdString()});
}

pid_t AgentPlace::WaitForDuplicate() {
    const std::string exe = (dup + "ravel.app/Contents/MacOS/ravel").toStdString();
    pid_t pid = 0;
    WaitUntil([&] { return (pid = FindProcess(exe)) != 0; });
    return pid;
}

void AgentPlace::EndThroughPort(pid_t pid) {
    WaitUntil([] { return PokePort(); });
    WaitUntil([pid] { return ProcessGone(pid); });
}

std::vector<std::string> AgentPlace::LogMessages() const {
    std::vector<std::string> messages;
    std::istringstream log(ReadAll(data + "log/ravel.log"));
    for (std::string line; std::getline(log, line);) {
        if (line.rfind("----------------------", 0) != 0) {
            messages.push_back(MessageOf(line));
        }
    }
    return messages;
}

bool AgentPlace::LogHas(const std::string& message) const {
    for (const std::string& m : LogMessages()) {
        if (m == message) {
            return true;
        }
    }
    return false;
}
