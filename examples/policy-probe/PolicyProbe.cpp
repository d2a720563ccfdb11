// A sample strategy plug-in. Its Init leaves a trace that a person or a test can see: a line on
// standard error and a line appended to "PolicyProbe.trace" beside the library.
#include "FileHandle.h"
#include "PolicyPlugin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

std::string TraceFileBesideLibrary() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&TraceFileBesideLibrary), &info) || !info.dli_fname) {
        return "PolicyProbe.trace";
    }
    const std::string library = info.dli_fname;
    const std::string::size_type slash = library.rfind('/');
    return (slash == std::string::npos ? std::string() : library.substr(0, slash + 1)) +
           "PolicyProbe.trace";
}

class PolicyProbe : public IPolicyPlugin {
public:
    int Init() override {
        const long pid = static_cast<long>(getpid());
        std::fprintf(stderr, "PolicyProbe: Init in process %ld\n", pid);
        if (FileHandle trace = OpenFile(TraceFileBesideLibrary().c_str(), "a")) {
            std::fprintf(trace.get(), "Init in process %ld\n", pid);
        }
        return 1;
    }
};

} // namespace

#ifndef POLICY_PROBE_WITHOUT_FACTORY
extern "C" __attribute__((visibility("default"))) IPolicyPlugin* CreatePlugin() {
    return new PolicyProbe;
}
#endif
