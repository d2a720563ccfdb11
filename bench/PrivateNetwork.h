// Benchmarks that listen on the agent's port run only inside a private network namespace
// (scripts/bench.sh starts them under unshare), never beside an agent live on the machine.
#pragma once

#include <string>
#include <unistd.h>

// True when this process's network namespace differs from that of process 1.
inline bool InPrivateNetwork() {
    char self[64] = {}, init[64] = {};
    return readlink("/proc/self/ns/net", self, sizeof self - 1) > 0 &&
           readlink("/proc/1/ns/net", init, sizeof init - 1) > 0 && std::string(self) != init;
}
