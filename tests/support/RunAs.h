// Other accounts for tests, which run as root inside their namespaces: the per-user agent
// refuses root, and a test of two accounts needs two. The accounts are bare ids (no entry in the
// user database); each has a home folder the test chooses.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

struct TestAccount {
    uid_t uid;        // its group id is the same number
    std::string home; // HOME for what runs as it
};

// The account the per-user agent runs as in the tests.
constexpr uid_t kTestUid = 4242;

// This process's environment for a program run as `account`: HOME set to its home, no
// XDG_DATA_HOME, as "NAME=value" texts.
std::vector<std::string> AccountEnvironment(const TestAccount& account);
// In a child of fork() only: drops every supplementary group, then sets the real, effective and
// saved group and user ids to the account's. False when a step fails.
bool BecomeAccount(const TestAccount& account);
// Runs `work` in a child process as `account` and returns its result as the child's exit status
// (0 to 255); -1 when the child could not become the account or was killed.
int RunAs(const TestAccount& account, const std::function<int()>& work);
// Gives `path`, and everything under it unless it is a link, to `uid` (user and group), without
// following links. Returns false when a chown fails.
bool GiveTo(const std::string& path, uid_t uid);
