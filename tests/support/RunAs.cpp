#include "RunAs.h"

#include <filesystem>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

std::vector<std::string> AccountEnvironment(const TestAccount& account) {
    std::vector<std::string> environment{"HOME=" + account.home};
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (text.rfind("HOME=", 0) != 0 && text.rfind("XDG_DATA_HOME=", 0) != 0)
            environment.push_back(text);
    }
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
    namespace fs = std::filesystem;
    std::error_code error;
    bool given = lchown(path.c_str(), uid, uid) == 0;
    for (fs::recursive_directory_iterator it(path, error), end; !error && it != end;
         it.increment(error))
        given = lchown(it->path().c_str(), uid, uid) == 0 && given;
    return given && !error;
}
