#include "RunAs.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

std::vector<std::string> AccountEnvironment(const TestAccount& account,
                                            const std::string& dataHome) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (text.rfind("HOME=", 0) != 0 && text.rfind("XDG_DATA_HOME=", 0) != 0)
            environment.push_back(text);
    }
    environment.push_back("HOME=" + account.home);
    if (!dataHome.empty())
        environment.push_back("XDG_DATA_HOME=" + dataHome);
    return environment;
}

bool BecomeAccount(const TestAccount& account) {
    // Groups first: once the user id is dropped, the group ids can no longer be changed.
    return setgroups(0, nullptr) == 0 && setresgid(account.uid, account.uid, account.uid) == 0 &&
           setresuid(account.uid, account.uid, account.uid) == 0;
}

int RunAs(const TestAccount& account, const std::function<int()>& work) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(BecomeAccount(account) ? work() & 0xFF : 126);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status) == 126 ? -1 : WEXITSTATUS(status);
}

bool GiveTo(const std::string& path, uid_t uid) {
    bool given = lchown(path.c_str(), uid, uid) == 0;
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return given;
    DIR* folder = opendir(path.c_str());
    if (!folder)
        return false;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            given = GiveTo(path + "/" + name, uid) && given;
    }
    closedir(folder);
    return given;
}
