// Accounts made up for tests that run programs as other users. A test program is root inside its
// private namespaces (Isolation.h), so it can take any user id there; no entry in /etc/passwd is
// needed, and nothing about the machine's own accounts changes.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

// A user and group id and the account's home folder (an absolute path).
struct Account {
    uid_t uid;
    gid_t gid;
    std::string home;
};

// The account the per-user agent runs as in the tests (it refuses root); its group id is the same
// number.
constexpr uid_t kTestUid = 4242;

// Opens a folder of the test's to every account (mode 0755), so that they reach what lies below.
// False with errno set when it cannot.
bool OpenToAccounts(const std::string& folder);

// Creates the home folder (its parent must exist and be reachable by the account), owned by the
// account, mode 0700. False with errno set when it cannot be made or given away.
bool MakeHome(const Account& account);

// Makes every entry of the tree at `path` the account's; links are changed, never followed.
// False with errno of the first entry that could not be changed (the others are changed all the
// same).
bool GiveTree(const std::string& path, const Account& account);

// Turns the calling process into the account: no supplementary groups, its group and user ids
// (real, effective and saved), HOME its home, the XDG_* folders of the caller unset. Meant for a
// child just forked; false with errno set when the kernel refuses (the process must then end).
bool BecomeAccount(const Account& account);

// Runs `attempt` as the account in a forked child and waits for it: the attempt's result, meant
// to be an errno value (0 when the attempt succeeded), 0 to 254. -1 when the child could not
// become the account, or did not end normally.
int TryAs(const Account& account, const std::function<int()>& attempt);

// Ends the process with this id (SIGKILL) and reaps it when it is a child of this process;
// another's is waited for until it is gone or a zombie. False when it is still running after a
// generous deadline, or there was no such process.
bool EndProcess(pid_t pid);
