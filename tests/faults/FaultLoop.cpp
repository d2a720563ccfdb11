#include "FaultLoop.h"

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; !from.empty() && (at = text.find(from, at)) != std::string::npos;
         at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

bool Contains(const std::string& text, const char* piece) {
    return text.find(piece) != std::string::npos;
}

// The first quoted string of a line: an exec's program.
std::string FirstQuoted(const std::string& line) {
    const size_t open = line.find('"');
    const size_t close = open == std::string::npos ? open : line.find('"', open + 1);
    return close == std::string::npos ? std::string() : line.substr(open + 1, close - open - 1);
}

} // namespace

std::string CallText(const std::string& line) {
    static const std::regex result(R"((\) +=| <unfinished \.\.\.>)[^=]*$)");
    std::smatch match;
    if (!std::regex_search(line, match, result))
        return line;
    return line.substr(0, match.position(0) + (line[match.position(0)] == ')' ? 1 : 0));
}

namespace {

// What tells one call from another, whatever numbers, descriptors and temporary names a run
// drew: the system call, the decoded descriptors and (but for data moved by read and write) the
// quoted texts of its arguments.
std::string Signature(const std::string& line) {
    const size_t open = line.find('(');
    if (open == std::string::npos)
        return line;
    const std::string syscall = line.substr(0, open);
    const std::string arguments = CallText(line).substr(open);
    const bool data = syscall == "read" || syscall == "write";
    static const std::regex token(R"(<[^>]*>|"[^"]*")");
    std::string signature = syscall;
    for (std::sregex_iterator it(arguments.begin(), arguments.end(), token), end; it != end; ++it)
        if (!data || it->str()[0] == '<')
            signature += " " + it->str();
    static const std::regex digits("[0-9]+"), temporary(R"(\.dat\.[A-Za-z0-9]{6})");
    return std::regex_replace(std::regex_replace(signature, temporary, ".dat.XXXXXX"), digits, "#");
}

bool MayCreate(const std::string& line) {
    return Contains(line, "O_CREAT") || Contains(line, "O_TMPFILE");
}

bool Applies(const std::string& syscall, const std::string& error, const std::string& line) {
    return error != "ENOSPC" || (syscall != "openat" && syscall != "open") || MayCreate(line);
}

std::string PointKey(const Fault& fault) {
    return fault.syscall + "#" + std::to_string(fault.when) + "#" + fault.path;
}

} // namespace

const std::vector<CallKind>& CallKinds() {
    const std::vector<std::string> file = {"ENOSPC", "EIO", "EACCES"},
                                   data = {"ENOSPC", "EIO", "EINTR"}, start = {"EAGAIN", "ENOMEM"},
                                   mode = {"EIO", "EACCES", "EPERM"},
                                   open = {"ENOSPC", "EIO", "EACCES", "EMFILE", "EINTR"};
    static const std::vector<CallKind> kinds = {
        {"open", {{"openat", open}, {"open", open}}},
        {"read", {{"read", {"EIO", "EINTR"}}}},
        {"write", {{"write", data}}},
        {"copy", {{"sendfile", data}, {"copy_file_range", data}}},
        {"link", {{"linkat", file}}},
        {"rename", {{"rename", file}, {"renameat", file}, {"renameat2", file}}},
        {"sync", {{"fsync", {"EIO", "ENOSPC"}}, {"fdatasync", {"EIO", "ENOSPC"}}}},
        {"mkdir", {{"mkdir", file}, {"mkdirat", file}}},
        {"chmod", {{"chmod", mode}, {"fchmod", mode}, {"fchmodat", mode}}},
        {"unlink", {{"unlink", {"EIO", "EACCES"}}, {"unlinkat", {"EIO", "EACCES"}}}},
        {"start", {{"clone", start}, {"clone3", start}, {"fork", start}, {"vfork", start}}},
        {"exec", {{"execve", {"EACCES", "EIO", "ENOMEM"}}}, true},
        {"listen",
         {{"socket", {"EMFILE", "EACCES"}},
          {"bind", {"EACCES", "EADDRINUSE"}},
          {"listen", {"EADDRINUSE"}}}},
    };
    return kinds;
}

const CallKind& KindNamed(const std::string& name) {
    for (const CallKind& kind : CallKinds())
        if (kind.name == name)
            return kind;
    throw std::out_of_range("no call kind " + name);
}

// The paths of the descriptors a call names (strace -y), in order; not the folder of AT_FDCWD.
std::vector<std::string> DescriptorPaths(const std::string& call) {
    static const std::regex descriptor(R"((?:^|[(, ])[0-9]+<([^>]*)>(\(deleted\))?)");
    std::vector<std::string> paths;
    for (std::sregex_iterator it(call.begin(), call.end(), descriptor), end; it != end; ++it)
        paths.push_back((*it)[1].str() + (*it)[2].str());
    return paths;
}

// The file a descriptor-based call works on, when strace can count the calls on it apart (-P):
// a named file of the agent's; empty for a pipe, a socket or a file not yet linked in (a
// temporary file made with O_TMPFILE: "#N", "(deleted)"). Not an agent's executable either:
// strace's command line would name it, and the agent's process-table test would take strace for
// a twin.
std::string FileOf(const TracedCall& call) {
    for (const std::string& path : call.files)
        if ((path.rfind("ROOT/", 0) == 0 || path.rfind("/", 0) == 0) &&
            !Contains(path, "(deleted)") && !Contains(path, "/#") &&
            !Contains(path, "ravel.app/Contents/MacOS/ravel"))
            return path;
    return std::string();
}

std::vector<TracedCall> ParseTrace(const std::string& text, const std::string& root) {
    static const std::regex start(R"(^(?:([0-9]+) +)?([a-z_0-9]+)\()");
    std::vector<TracedCall> calls;
    std::map<std::pair<int, std::string>, int> counts;
    std::istringstream lines(text);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_search(line, match, start))
            continue;
        TracedCall call;
        call.pid = match[1].matched ? std::stoi(match[1]) : 0;
        call.syscall = match[2];
        call.when = ++counts[{call.pid, call.syscall}];
        call.line = ReplaceAll(line.substr(match.position(2)), root, "ROOT/");
        call.files = DescriptorPaths(CallText(call.line));
        calls.push_back(call);
    }
    return calls;
}

// True for the agent's own calls: those naming its places (the run's folder, the data root, each
// level of its path, /tmp/RAVEL_tmp), its process starts and its listener.
bool AgentsOwnCall(const TracedCall& call) {
    static const std::regex sharedObject(R"(\.so(\.[0-9]+)*[">])");
    const std::string& line = call.line;
    // Not the loader's search for shared objects, nor the sanitizer runtime reading /proc/self.
    if (std::regex_search(line, sharedObject) || Contains(line, "</proc/"))
        return false;
    if (call.syscall == "clone" || call.syscall == "clone3" || call.syscall == "fork" ||
        call.syscall == "vfork" || call.syscall == "bind" || call.syscall == "listen")
        return true;
    if (call.syscall == "socket")
        return Contains(line, "AF_INET");
    // Making the data root opens each level of its path, /usr and /usr/local included.
    return Contains(line, "ROOT/") || Contains(line, "/usr/local/zq_kt_userdata") ||
           Contains(line, "/tmp/RAVEL_tmp") || Contains(line, "(\"/usr\"") ||
           Contains(line, "(\"/usr/local\"");
}

// The faults of one call: every error of its system call that applies.
void AddFaults(Fault fault, const std::vector<std::string>& errors, std::vector<Fault>& faults) {
    for (const std::string& error : errors)
        if (Applies(fault.syscall, error, fault.line)) {
            fault.error = error;
            faults.push_back(fault);
        }
}

std::vector<Fault> EveryFault(const CallKind& kind, const std::vector<TracedCall>& calls) {
    std::vector<Fault> faults;
    const int leader = calls.empty() ? 0 : calls.front().pid;
    std::set<std::string> programs;
    for (const auto& [syscall, errors] : kind.calls) {
        std::map<std::string, int> onFile; // the calls so far on each file
        for (const TracedCall& call : calls) {
            if (call.syscall != syscall)
                continue;
            if (call.pid == leader)
                for (const std::string& file : call.files)
                    ++onFile[file];
            Fault fault{kind.name, call.syscall, call.when, "", "", call.line};
            if (kind.inChild) {
                // The agent's own children: the updater, the duplicate, the process-table shell.
                fault.path = FirstQuoted(call.line);
                fault.when = 1; // strace counts each child's calls apart
                const bool own = fault.path.rfind("ROOT/", 0) == 0 || fault.path == "/bin/sh";
                if (call.pid != leader && own && programs.insert(fault.path).second)
                    AddFaults(fault, errors, faults);
                continue;
            }
            if (call.pid != leader || !AgentsOwnCall(call))
                continue;
            // Counted among the calls on its file: calls on pipes, which a signal may make
            // start over, then cannot shift it.
            fault.path = FileOf(call);
            if (!fault.path.empty())
                fault.when = onFile[fault.path];
            AddFaults(fault, errors, faults);
        }
    }
    return faults;
}

size_t PointCount(const std::vector<Fault>& faults) {
    std::set<std::string> points;
    for (const Fault& fault : faults)
        points.insert(PointKey(fault));
    return points.size();
}

std::vector<Fault> SampleOf(const std::vector<Fault>& faults, size_t spread) {
    std::vector<std::string> syscalls;
    for (const Fault& fault : faults)
        if (std::find(syscalls.begin(), syscalls.end(), fault.syscall) == syscalls.end())
            syscalls.push_back(fault.syscall);
    std::vector<Fault> sample;
    for (const std::string& syscall : syscalls) {
        std::vector<std::vector<Fault>> points; // the faults of each point, in order
        for (const Fault& fault : faults)
            if (fault.syscall == syscall) {
                if (points.empty() || PointKey(points.back().front()) != PointKey(fault))
                    points.emplace_back();
                points.back().push_back(fault);
            }
        const size_t n = points.size(), k = std::min(n, std::max<size_t>(spread, 1));
        std::set<std::string> errors, used;
        for (size_t j = 0; j < k; ++j) { // first, last and evenly between
            const std::vector<Fault>& point = points[k == 1 ? 0 : j * (n - 1) / (k - 1)];
            sample.push_back(point[j % point.size()]);
            used.insert(point[j % point.size()].error);
        }
        for (const std::vector<Fault>& point : points)
            for (const Fault& fault : point)
                if (!used.count(fault.error)) { // an error no chosen point took
                    sample.push_back(fault);
                    used.insert(fault.error);
                }
    }
    return sample;
}

std::vector<std::string> StraceArguments(const std::string& tracePath, const Fault* fault,
                                         const std::string& root) {
    std::vector<std::string> args = {"-qq", "-y", "-o", tracePath};
    if (!fault) {
        std::string traced = "trace=";
        for (const CallKind& kind : CallKinds())
            for (const auto& call : kind.calls)
                traced += call.first + ",";
        args.insert(args.end(), {"-f", "-e", traced.substr(0, traced.size() - 1)});
    } else {
        const std::string inject = "inject=" + fault->syscall + ":error=" + fault->error +
                                   ":when=" + std::to_string(fault->when);
        if (KindNamed(fault->kind).inChild)
            args.push_back("-f");
        if (!fault->path.empty())
            args.insert(args.end(), {"-P", ReplaceAll(fault->path, "ROOT/", root)});
        args.insert(args.end(), {"-e", "trace=" + fault->syscall, "-e", inject});
    }
    // bash, not sh: the process-table test's shell is /bin/sh, which an exec fault may name.
    args.insert(args.end(),
                {"--", "/bin/bash", "-c", "exec \"$RAVEL_FAULT_PROGRAM\" \"$@\"", "ravel"});
    return args;
}

std::string InjectedLine(const std::string& trace, const std::string& root) {
    for (const TracedCall& call : ParseTrace(trace, root))
        if (Contains(call.line, "(INJECTED)"))
            return call.line;
    return std::string();
}

bool SameCall(const Fault& fault, const std::string& injectedLine) {
    return Signature(fault.line) == Signature(injectedLine);
}
