#include "Accounts.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <ftw.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const int kNotBecome = 255; // exit status of a child that could not become the account

// The account nftw's callback gives entries to, and the first failure it met.
const Account* g_receiver = nullptr;
int g_firstError = 0;

int GiveEntry(const char* path, const struct stat*, int, struct FTW*) {
    if (lchown(path, g_receiver->uid, g_receiver->gid) != 0 && g_firstError == 0)
        g_firstError = errno;
    return 0;
}

// True while the process exists and has not ended (a zombie has ended).
bool Running(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

} // namespace

bool OpenToAccounts(const std::string& folder) {
    return chmod(folder.c_str(), 0755) == 0;
}

bool MakeHome(const Account& account) {
    if (mkdir(account.home.c_str(), 0700) != 0 && errno != EEXIST)
        return false;
    return chown(account.home.c_str(), account.uid, account.gid) == 0 &&
           chmod(account.home.c_str(), 0700) == 0;
}

bool GiveTree(const std::string& path, const Account& account) {
    g_receiver = &account;
    g_firstError = 0;
    if (nftw(path.c_str(), GiveEntry, 16, FTW_PHYS) != 0 && g_firstError == 0)
        g_firstError = errno;
    errno = g_firstError;
    return g_firstError == 0;
}

bool BecomeAccount(const Account& account) {
    if (setgroups(0, nullptr) != 0 || setresgid(account.gid, account.gid, account.gid) != 0 ||
        setresuid(account.uid, account.uid, account.uid) != 0)
        return false;
    for (const char* folder : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME",
                               "XDG_CACHE_HOME", "XDG_RUNTIME_DIR"})
        unsetenv(folder);
    return setenv("HOME", account.home.c_str(), 1) == 0;
}

int TryAs(const Account& account, const std::function<int()>& attempt) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (!BecomeAccount(account))
            _exit(kNotBecome);
        const int result = attempt();
        _exit(result >= 0 && result < kNotBecome ? result : kNotBecome - 1);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) == kNotBecome)
        return -1;
    return WEXITSTATUS(status);
}

bool EndProcess(pid_t pid) {
    if (pid <= 0 || kill(pid, SIGKILL) != 0)
        return false;
    if (waitpid(pid, nullptr, 0) == pid)
        return true;
    for (int i = 0; i < 2400 && Running(pid); ++i) // not our child: two minutes at most
        usleep(50000);
    return !Running(pid);
}
