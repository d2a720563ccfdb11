#include "Isolation.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {
const char kIsolated[] = "RAVEL_TEST_ISOLATED";     // set by tests/isolated.sh
const char kUnisolated[] = "RAVEL_TEST_UNISOLATED"; // set when the namespaces cannot be made

// sh tests/isolated.sh SOURCE BUILD -- program...
std::vector<std::string> Wrapped(const std::vector<std::string>& program) {
    std::vector<std::string> args{"sh", RAVEL_SOURCE_DIR "/tests/isolated.sh", RAVEL_SOURCE_DIR,
                                  RAVEL_BINARY_DIR, "--"};
    args.insert(args.end(), program.begin(), program.end());
    return args;
}

std::vector<char*> Pointers(std::vector<std::string>& args) {
    std::vector<char*> pointers;
    for (std::string& arg : args)
        pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    return pointers;
}

// True when the namespaces can be made here: a trial run of `true` in them succeeds.
bool CanIsolate() {
    std::vector<std::string> args = Wrapped({"true"});
    const pid_t pid = fork();
    if (pid == 0) {
        freopen("/dev/null", "w", stderr);
        execvp("sh", Pointers(args).data());
        _exit(127);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

std::string SelfPath() {
    char path[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", path, sizeof path - 1);
    return size > 0 ? std::string(path, size_t(size)) : std::string();
}
} // namespace

bool Isolated() {
    return std::getenv(kIsolated) != nullptr;
}

void EnterIsolation(int argc, char** argv) {
    if (Isolated() || std::getenv(kUnisolated))
        return;
    const std::string self = SelfPath();
    if (self.empty() || !CanIsolate()) {
        setenv(kUnisolated, "1", 1); // for the programs this one starts, too
        std::fprintf(stderr, "note: no private namespaces can be made here (run the tests as "
                             "root); the cases that need them are skipped\n");
        return;
    }
    std::vector<std::string> program{self};
    program.insert(program.end(), argv + 1, argv + argc);
    std::vector<std::string> args = Wrapped(program);
    std::fflush(nullptr);
    execvp("sh", Pointers(args).data());
    std::perror("tests/isolated.sh");
    std::exit(127);
}
