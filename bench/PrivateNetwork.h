// Benchmarks that listen on the agent's port run only inside a private network namespace
// (scripts/bench.sh starts them under unshare), never beside an agent live on the machine.
#pragma once

#include <fstream>
#include <string>

// True when loopback is the only network interface this process sees, as in a namespace made
// by unshare --net (the machine's own namespace has others).
inline bool InPrivateNetwork() {
    std::ifstream devices("/proc/self/net/dev");
    int interfaces = 0;
    bool loopback = false;
    for (std::string line; std::getline(devices, line);) {
        const auto colon = line.find(':');
        if (colon == std::string::npos)
            continue; // the two heading lines
        ++interfaces;
        loopback = loopback || line.substr(0, colon).find("lo") != std::string::npos;
    }
    return interfaces == 1 && loopback;
}
