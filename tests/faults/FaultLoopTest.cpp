// Every I/O call the agent makes during a check and during a deployment made to fail in turn
// (strace), with each error the call can give. For each fault: no crash (no signal, no sanitizer
// report), no hang, the exit status and log line the agent gives where it reports the failure,
// and no settings file lost, cut short or half-written, nor a temporary file left beside it.
// ctest runs a sample of each call kind; RAVEL_FAULT_LOOP=all runs every fault
// (scripts/fault-loop.sh), printing a line per fault and a summary per kind; "count" only counts.
#include "AgentHarness.h"
#include "Isolation.h"

#include <QRegularExpression>
#include <QXmlStreamReader>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

// The calls a report groups under one name ("open", "write", "start", ...): each system call as
// strace names it, with the errors it is made to fail with (those it can give).
struct CallKind {
    std::string name;
    std::vector<std::pair<std::string, std::vector<std::string>>> calls;
    bool inChild = false; // made by a child the agent starts (an exec): traced with strace -f
};
// One call a traced run made.
struct TracedCall {
    int pid = 0;         // strace -f's
    std::string syscall; // as strace names it
    int when = 0;        // its number among the calls of `syscall` in its process, from 1
    std::string line;    // strace's line, the run's own folder written as "ROOT/"
    std::vector<std::string> files; // the paths of the descriptors it names (strace -y)
};
// One call made to fail.
struct Fault {
    std::string kind, syscall; // CallKind::name; as strace names it
    int when = 0;              // strace's occurrence: the N-th call of `syscall` it counts
    std::string error;         // ENOSPC, EIO, ...
    std::string path; // what strace counts the calls on (-P): a child's program or a descriptor's
                      // file; empty: every call of the agent's process counts
    std::string line; // the call as the clean run made it, "ROOT/" for the run's folder
};

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; !from.empty() && (at = text.find(from, at)) != std::string::npos;
         at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

bool Contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

// The first quoted string of a line: an exec's program.
std::string FirstQuoted(const std::string& line) {
    const size_t open = line.find('"');
    const size_t close = open == std::string::npos ? open : line.find('"', open + 1);
    return close == std::string::npos ? std::string() : line.substr(open + 1, close - open - 1);
}

// strace's line of a call without its result.
std::string CallText(const std::string& line) {
    static const std::regex result(R"((\) +=| <unfinished \.\.\.>)[^=]*$)");
    std::smatch match;
    if (!std::regex_search(line, match, result))
        return line;
    return line.substr(0, match.position(0) + (line[match.position(0)] == ')' ? 1 : 0));
}

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

// Every kind, in the order of the report; KindNamed throws std::out_of_range for an unknown name.
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

// Every kind, in the order of the report; KindNamed throws std::out_of_range for an unknown name.
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

// The calls of strace's output (-o, -y), in order; `root` is the run's folder.
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

// Every fault of `kind` in a run that made `calls`: each of the agent's own calls of that kind
// (those naming its places, the process starts and the listener; for an exec, each program a
// child of the agent starts, once), with every error that applies (ENOSPC for an open only where
// it may create). A call on a descriptor of a named file counts among the calls on that file.
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

// The number of distinct calls (points: call x occurrence) among `faults`.
size_t PointCount(const std::vector<Fault>& faults) {
    std::set<std::string> points;
    for (const Fault& fault : faults)
        points.insert(PointKey(fault));
    return points.size();
}

// A bounded, deterministic sample: for each system call its first and last points and a spread
// between (at most `spread` points), each error at least once.
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

// strace's arguments (program excluded) for a run of $RAVEL_FAULT_PROGRAM (through bash, so that
// no process but the agent lists its path: its process-table test would see a twin) in the folder
// `root`: recording every call, or making `fault` fail. The trace goes to `tracePath`.
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

// The traced line of the call strace made to fail ("ROOT/" for `root`); empty when none was. A
// call another process's call interrupted in the trace ("<unfinished ...>", then "<... resumed>")
// is joined back.
std::string InjectedLine(const std::string& trace, const std::string& root) {
    static const std::regex resumed(R"(^([0-9]+) +<\.\.\. [a-z_0-9]+ resumed>(.*)$)");
    std::map<std::string, std::string> unfinished; // by process
    std::istringstream lines(trace);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        const size_t cut = line.find(" <unfinished ...>");
        if (cut != std::string::npos)
            unfinished[line.substr(0, line.find(' '))] = line.substr(0, cut);
        else if (std::regex_match(line, match, resumed))
            line = unfinished[match[1]] + match[2].str();
        if (Contains(line, "(INJECTED)"))
            for (const TracedCall& call : ParseTrace(line, root))
                return call.line;
    }
    return std::string();
}

// True when the injected line is the call `fault` meant: the same system call on the same path,
// decoded descriptor or program (numbers and temporary names may differ).
bool SameCall(const Fault& fault, const std::string& injectedLine) {
    return Signature(fault.line) == Signature(injectedLine);
}

const int kNone = -3; // no such process came
const int kHang = -2; // still running at the deadline
const QString kDataRoot = "/usr/local/zq_kt_userdata/";
const std::string kListenFailed = "QLocalServer listen failed.";
// Points of each system call a ctest run tries: first, last and between; the first alone in the
// sanitizer build, whose traced runs are several times slower.
#ifdef __SANITIZE_ADDRESS__
const size_t kSpread = 1;
#else
const size_t kSpread = 3;
#endif

// Settings as Qt's XML reader (independent of the agent's) sees them. False when the file is not
// whole: no UTF-8 mark, not well formed, or no root element "root".
bool ReadSettingsWhole(const std::string& bytes, Settings& settings) {
    if (bytes.compare(0, 3, "\xEF\xBB\xBF") != 0)
        return false;
    QXmlStreamReader reader(QByteArray::fromStdString(bytes.substr(3)));
    settings.clear();
    int depth = 0;
    QString section;
    while (!reader.atEnd()) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        depth -= token == QXmlStreamReader::EndElement;
        if (token != QXmlStreamReader::StartElement)
            continue;
        const QString name = reader.name().toString();
        if (++depth == 1 && name != QLatin1String("root"))
            return false;
        if (depth == 2)
            settings[section = name];
        if (depth == 3) { // a key: its text, up to and with its end
            settings[section][name] =
                reader.readElementText(QXmlStreamReader::IncludeChildElements);
            --depth;
        }
    }
    return !reader.hasError() && depth == 0;
}

// The messages of a log, a message with line breaks joined back; false, with the offending line
// in `bad`, when a line has not the log's form.
bool LogMessages(const std::string& log, std::vector<std::string>& messages, std::string& bad) {
    messages.clear();
    std::string record; // a line, with the lines a message's own line breaks made ('\1' between)
    std::istringstream lines(log);
    LogLine parsed;
    for (std::string line; std::getline(lines, line);) {
        if (record.empty() && (IsStartBanner(line) || IsEndBanner(line)))
            continue;
        record += record.empty() ? line : "\1" + line;
        if (record.size() < 4 || record.compare(record.size() - 4, 4, "]-->") != 0)
            continue;
        if (!ParseLogLine(record, parsed))
            return bad = record, false;
        std::replace(parsed.message.begin(), parsed.message.end(), '\1', '\n');
        messages.push_back(parsed.message);
        record.clear();
    }
    return record.empty() || (bad = record, false);
}

bool Has(const std::vector<std::string>& messages, const std::string& message) {
    return std::find(messages.begin(), messages.end(), message) != messages.end();
}

// What a run left, for the checks.
struct Run {
    Run(AgentPlace& place, const Fault* fault) : place(place), fault(fault) {}
    AgentPlace& place;
    const Fault* fault;                    // none in the clean run
    std::string injected, trace;           // strace's line of the failed call; its whole output
    int status = kNone;                    // the agent's exit status; -1 after a signal
    int resident = kNone;                  // a deployment's duplicate, ended through its port
    std::string residentProgram;           // where it ran from
    std::map<QString, std::string> before; // the settings files as arranged
    std::vector<std::string> messages;     // the log's
    std::string errors, badLogLine;        // standard output and error; a log line out of form
    bool logWhole = true;
    std::vector<std::string> leftRunning; // agents still running after the run

    bool Failed(std::initializer_list<const char*> syscalls) const {
        for (const char* syscall : syscalls)
            if (fault && !injected.empty() && fault->syscall == syscall)
                return true;
        return false;
    }
    bool OnListener() const { return Failed({"socket", "bind", "listen"}); }
    bool OnPath(const std::string& piece) const { return Contains(injected, piece); }
    // The log itself, its folder or its opening.
    bool OnLog() const { return OnPath("/log/ravel.log") || OnPath("/log\"") || OnPath("/log/\""); }
};
using Findings = std::vector<std::string>;

struct Scenario {
    const char* name;
    bool duplicate;                           // the resident duplicate, else the installed copy
    std::function<void(AgentPlace&)> arrange; // after LayOutInstalled
    std::function<void(const Run&, Findings&)> check;
    QString dataFolder = QString(); // the place's; its own temporary folder when empty
};

void CheckCommon(const Run& run, Findings& found) {
    if (run.status == kHang)
        found.push_back("a hang: still running at the deadline");
    if (run.status == -1)
        found.push_back("ended by a signal");
    if (Contains(run.errors, "Sanitizer") || Contains(run.errors, "runtime error"))
        found.push_back("a sanitizer report:\n" + run.errors);
    if (!run.logWhole)
        found.push_back("a log line out of form: " + run.badLogLine);
    for (const std::string& program : run.leftRunning)
        found.push_back("an agent still running after the run: " + program);
    for (const QString& folder : {run.place.dup, run.place.inst})
        for (const QString& name : QDir(folder).entryList(QDir::Files | QDir::Hidden))
            if (name.startsWith("UserInfo.dat.") || name.startsWith("Tidewater.dat."))
                found.push_back("a temporary file left: " + (folder + name).toStdString());
    for (const auto& [file, bytes] : run.before) { // each settings file as it was, or whole
        Settings settings;
        const std::string now = ReadAll(file);
        if (now != bytes && !ReadSettingsWhole(now, settings))
            found.push_back(file.toStdString() + " not whole:\n" + now);
    }
}

// ---- The resident duplicate: start, missed-check test, first check, launch, listener ----

// A cycle long over in the third delay round, where no delay is drawn: the first check writes its
// round and launches. "odd" is repaired to "ready" at start; "Notes" is a value no one writes.
void ArrangeCheck(AgentPlace& place) {
    place.LayOutInstalled(
        {{"UpdateSetting", {{"AutoCheckNow", "0"}}}, {"LOG", {{"LogSwitch", "1"}}}},
        {{"UpdateInfo", {{"LastStatus", "odd"}}},
         {"DelayInfo", {{"DelayTimes", "3"}, {"DelayTime", "0"}}},
         {"Notes", {{"Kept", "a value no one writes"}}}});
    for (const QString& file :
         QStringList{"libPolicyProbe.dylib", "libalpha.dylib", "Tidewater.dat"})
        QFile::copy(place.inst + file, place.dup + file);
    CopyExecutable(RAVEL_EXE_BUILT, QString::fromStdString(place.duplicateExe));
}

// Every value of UserInfo.dat stays, but those a check and the updater it started may change.
void CheckSchedule(const Run& run, bool updaterRan, Findings& found) {
    const std::string now = ReadAll(run.place.dup + "UserInfo.dat");
    Settings before, after;
    ReadSettingsWhole(run.before.at(run.place.dup + "UserInfo.dat"), before);
    if (!ReadSettingsWhole(now, after))
        return; // CheckCommon reports it
    for (const auto& [section, keys] : before)
        for (const auto& [key, was] : keys) {
            const std::string name = (section + "/" + key).toStdString();
            const auto at = after[section].find(key);
            if (at == after[section].end()) {
                found.push_back("UserInfo.dat lost " + name);
                continue;
            }
            const QString& value = at->second;
            const bool allowed =
                key == "LastStatus"   ? value == "odd" || value == "ready"
                : key == "DelayTimes" ? value == "3" || (updaterRan && value == "1")
                : key == "DelayTime"
                    ? !value.isEmpty() && !value.contains(QRegularExpression("[^0-9]"))
                : key == "LastLaunchTime" ? value == was || (updaterRan && !value.isEmpty())
                                          : value == was;
            if (!allowed)
                found.push_back("UserInfo.dat " + name + " became \"" + value.toStdString() + "\"" +
                                (updaterRan ? "" : " and no updater ran"));
        }
}

void CheckResident(const Run& run, Findings& found) {
    const AgentPlace& place = run.place;
    if (run.status > 0)
        found.push_back("exit status " + std::to_string(run.status) + ", not 0");
    const std::string launches = ReadAll(place.inst + "Tidewater.args");
    if (run.OnListener()) {
        if (!Has(run.messages, kListenFailed) || !launches.empty())
            found.push_back("a failed listen not logged, or the updater ran after it");
    } else {
        if (!run.OnLog() &&
            (run.messages.empty() || run.messages.back() != "Accept a connection, ravel exit."))
            found.push_back("the log does not end with the connection that ends the agent");
        // Only a failed start, or a schedule that could not be read, may hold the launch back.
        const bool mayHold = run.Failed({"clone", "clone3", "fork", "vfork", "execve"}) ||
                             run.OnPath("UserInfo.dat");
        if (launches != "auto\n" && !(mayHold && launches.empty()))
            found.push_back("the updater's runs: \"" + launches + "\", not one");
    }
    for (const QString& file : {place.inst + "Tidewater.dat", place.dup + "Tidewater.dat"})
        if (ReadAll(file) != run.before.at(file))
            found.push_back(file.toStdString() + " changed:\n" + ReadAll(file));
    CheckSchedule(run, launches == "auto\n", found);
}

// ---- The installed copy: data folder, log, bundle, libraries, data folders, Tidewater.dat, the
// duplicate's start ----

// No data folder in the settings: the default one, made level by level, is written back.
void ArrangeDeployment(AgentPlace& place) {
    place.LayOutInstalled();
    QFile::remove(place.inst + "Tidewater.dat");
    WriteSettings(place.inst + "Tidewater.dat",
                  {{"UpdateSetting", {{"TimerMinutes", "600"}, {"AutoCheckNow", "0"}}},
                   {"LOG", {{"LogSwitch", "1"}}}});
    QDir(kDataRoot).removeRecursively();
    for (const char* level : {"/usr", "/usr/local"}) // the overlay of the namespaces
        chmod(level, 0755);
}

// The data folder written back to the installed settings, everything else as it was.
void CheckInstalledSettings(const Run& run, Findings& found) {
    const QString path = run.place.inst + "Tidewater.dat";
    const std::string now = ReadAll(path), was = run.before.at(path);
    Settings written, after;
    ReadSettingsWhole(was, written);
    written["DupInfo"]["DuplicatePath"] = run.place.data;
    if (now != was && (!ReadSettingsWhole(now, after) || after != written))
        found.push_back("Tidewater.dat neither as before nor with DuplicatePath:\n" + now);
    const std::string copy = ReadAll(run.place.dup + "Tidewater.dat");
    if (QFile::exists(run.place.dup + "Tidewater.dat") && copy != now && copy != was)
        found.push_back("the duplicate's Tidewater.dat is not a whole copy:\n" + copy);
}

// The installed copy went as far as starting the duplicate (as its log says, unless the fault
// was on the log).
bool HandedOver(const Run& run) {
    static const std::string start = "File path is: ", exe = "/ravel.app/Contents/MacOS/ravel";
    for (const std::string& message : run.messages)
        if (message.rfind(start, 0) == 0 && message.size() > exe.size() &&
            message.compare(message.size() - exe.size(), exe.size(), exe) == 0)
            return true;
    return run.OnLog() && run.status == 0 && !run.OnListener();
}

// The duplicate's own start: its fork, or its program's exec.
bool OnDuplicateStart(const Run& run) {
    return (run.Failed({"clone", "fork", "vfork"}) && !run.OnPath("CLONE_VFORK")) ||
           (run.Failed({"execve"}) && run.OnPath("Brightwell/ravel.app"));
}

void CheckHandOver(const Run& run, Findings& found) {
    const AgentPlace& place = run.place;
    if (!HandedOver(run))
        return found.push_back("ended with 0 without handing over");
    if (run.resident == kNone) {
        if (!OnDuplicateStart(run))
            found.push_back("no resident duplicate after the hand-over");
        return;
    }
    if (run.resident != 0 || run.residentProgram != place.duplicateExe)
        found.push_back("the duplicate ran from " + run.residentProgram + " and ended with " +
                        std::to_string(run.resident));
    if (ReadAll(QString::fromStdString(place.duplicateExe)) != ReadAll(RAVEL_EXE_BUILT) ||
        !QFile::exists(place.dup + "Tidewater.dat"))
        found.push_back("handed over without a whole bundle and Tidewater.dat");
    for (const QString& name :
         QDir(place.inst).entryList({"lib*.dylib"}, QDir::Files | QDir::CaseSensitive))
        if (!QFile::exists(place.dup + name) &&
            !Has(run.messages,
                 "Copy file failed. the file name is:\n" + (place.inst + name).toStdString() + "."))
            found.push_back("a library neither copied nor its failure logged: " +
                            name.toStdString());
}

void CheckDeployment(const Run& run, Findings& found) {
    if (run.OnListener()) {
        if (run.status != 0 || !Has(run.messages, kListenFailed) ||
            QFile::exists(QString::fromStdString(run.place.duplicateExe)))
            found.push_back("a failed listen: status " + std::to_string(run.status) +
                            ", not logged or deployed anyway");
    } else if (run.status == 255) {
        if (!Has(run.messages, "Copy file to Dup failed.") &&
            !Contains(run.errors, "Duplicate path is empty or it's not a path."))
            found.push_back("status 255 without its message");
    } else if (run.status == 0) {
        CheckHandOver(run, found);
    } else if (run.status >= 0) {
        found.push_back("exit status " + std::to_string(run.status));
    }
    CheckInstalledSettings(run, found);
}

const Scenario kCheck = {"check", true, ArrangeCheck, CheckResident};
const Scenario kDeployment = {"deploy", false, ArrangeDeployment, CheckDeployment,
                              kDataRoot + "Demo_Product/"};

// ---- Running the agent under strace ----

// Waits for our child `pid`, calling `meanwhile` as it does: its exit status, -1 after a signal,
// kHang (and killed) at the deadline.
int StatusOf(
    pid_t pid, const std::function<void()>& meanwhile = [] {}) {
    int status = 0;
    bool ended = false;
    if (!WaitUntil(
            [&] { return meanwhile(), ended = ended || waitpid(pid, &status, WNOHANG) == pid; })) {
        kill(pid, SIGKILL), waitpid(pid, &status, 0);
        return kHang;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// An agent process but `except` (0 when none): any argv[0] of a bundle's executable.
pid_t FindAgent(const std::string& except, std::string& program) {
    static const std::string exe = "/ravel.app/Contents/MacOS/ravel";
    for (const QString& entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const std::vector<std::string> args = CommandLineOf(entry.toInt());
        if (entry.toInt() > 0 && !args.empty() && args[0] != except &&
            args[0].size() > exe.size() &&
            args[0].compare(args[0].size() - exe.size(), exe.size(), exe) == 0) {
            program = args[0];
            return entry.toInt();
        }
    }
    return 0;
}

// The resident agent (wherever a fault may have put its folder): once it listens, it is asked to
// end through its port.
struct Resident {
    pid_t pid = 0;
    std::string program;
    bool asked = false;
    void Poll(const AgentPlace& place) {
        if (!pid)
            pid = FindAgent(place.installedExe, program);
        if (pid && !asked)
            asked = UsePort(false) == 1;
    }
};

// Runs the scenario's agent under strace (recording every call, or failing `fault`), ends what it
// leaves resident, waits for every process it started, and gathers what the checks read.
void RunAgent(const Scenario& scenario, Run& run) {
    AgentPlace& place = run.place;
    std::remove("/tmp/RAVEL_tmp");
    for (const QString& file :
         {place.inst + "Tidewater.dat", place.dup + "UserInfo.dat", place.dup + "Tidewater.dat"})
        run.before[file] = ReadAll(file);
    const std::string trace = (place.root + "strace.txt").toStdString();
    std::vector<std::string> argv = StraceArguments(trace, run.fault, place.root.toStdString());
    argv.insert(argv.begin(), "strace");
    if (scenario.duplicate)
        argv.push_back(place.inst.toStdString());
    setenv("RAVEL_FAULT_PROGRAM",
           (scenario.duplicate ? place.duplicateExe : place.installedExe).c_str(), 1);
    const pid_t strace = place.Start(STRACE, argv);
    place.Forget(strace); // waited for here
    Resident resident;
    run.status = StatusOf(strace, [&] { resident.Poll(place); });
    run.trace = ReadAll(QString::fromStdString(trace));
    run.injected = InjectedLine(run.trace, place.root.toStdString());
    run.logWhole = LogMessages(ReadAll(place.data + "log/ravel.log"), run.messages, run.badLogLine);
    // A deployment that ended well leaves a resident duplicate, wherever its data folder went.
    if (!scenario.duplicate && run.status == 0 && !run.OnListener() && !OnDuplicateStart(run)) {
        pid_t gone = 0;
        WaitUntil([&] {
            resident.Poll(place);
            const std::vector<pid_t> ended = EndedChildren("ravel");
            gone = ended.empty() ? 0 : ended.front();
            return resident.asked || (!resident.pid && gone);
        });
        if (resident.pid || gone)
            run.resident = StatusOf(resident.pid ? resident.pid : gone);
        run.residentProgram = resident.pid ? resident.program : place.duplicateExe;
    }
    std::string program; // agents still running: each is a finding, ended by its PID
    while (const pid_t pid = FindAgent("", program)) {
        run.leftRunning.push_back(program);
        kill(pid, SIGKILL);
        WaitUntil([pid] { return CommandLineOf(pid).empty(); });
    }
    // The updater it started records its run before the checks read the files.
    if (!WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }))
        run.status = kHang;
    run.errors = ReadAll(place.errFile);
    run.logWhole = LogMessages(ReadAll(place.data + "log/ravel.log"), run.messages, run.badLogLine);
}

struct Outcome {
    Findings found;
    std::vector<TracedCall> calls; // the clean run's
    bool designed = false;         // the store's contract made what the checks found
};

// The store's contract: a settings file this account may not read reads as empty, and the next
// write replaces it whole. Such a fault may change what the agent decides and which values stay.
bool Unreadable(const Run& run) {
    return run.Failed({"openat", "open"}) && run.fault->error == "EACCES" &&
           !run.OnPath("O_WRONLY") && !run.OnPath("O_RDWR") &&
           (run.OnPath("Tidewater.dat") || run.OnPath("UserInfo.dat") ||
            run.OnPath("UpdateInfo.dat"));
}

Outcome RunAndCheck(const Scenario& scenario, const Fault* fault) {
    QDir(kDataRoot).removeRecursively();
    AgentPlace place(scenario.dataFolder);
    scenario.arrange(place);
    Run run(place, fault);
    RunAgent(scenario, run);
    Outcome outcome;
    scenario.check(run, outcome.found);
    if (!outcome.found.empty() && Unreadable(run)) {
        outcome.designed = true;
        outcome.found.clear();
    }
    CheckCommon(run, outcome.found);
    if (fault && run.injected.empty())
        outcome.found.push_back("not reached: no call was made to fail");
    else if (fault && !SameCall(*fault, run.injected))
        outcome.found.push_back("another call failed than meant: " + run.injected);
    if (!fault)
        outcome.calls = ParseTrace(run.trace, place.root.toStdString());
    return outcome;
}

// ---- The loop ----

struct LoopCase {
    const Scenario* scenario;
    std::string kind;
};
void PrintTo(const LoopCase& c, std::ostream* out) {
    *out << c.scenario->name << "/" << c.kind;
}
std::vector<LoopCase> LoopCases() {
    std::vector<LoopCase> cases;
    for (const Scenario* scenario : {&kCheck, &kDeployment})
        for (const CallKind& kind : CallKinds())
            cases.push_back({scenario, kind.name});
    return cases;
}

std::string Short(const std::string& line) {
    const std::string call = CallText(line);
    return call.size() > 110 ? call.substr(0, 107) + "..." : call;
}

class FaultLoop : public ::testing::TestWithParam<LoopCase> {
protected:
    static void SetUpTestSuite() {
        // The sanitizers' leak check cannot run in a process strace traces.
        const char* asan = std::getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":detect_leaks=0").c_str(), 1);
    }
};

TEST_P(FaultLoop, EachCallFailedInTurn) {
    RAVEL_REQUIRE_ISOLATION();
    const Scenario& scenario = *GetParam().scenario;
    const CallKind& kind = KindNamed(GetParam().kind);
    const Outcome clean = RunAndCheck(scenario, nullptr);
    ASSERT_TRUE(clean.found.empty()) << "the clean run:\n" << ::testing::PrintToString(clean.found);
    const std::vector<Fault> every = EveryFault(kind, clean.calls);
    const std::string mode = std::getenv("RAVEL_FAULT_LOOP") ? std::getenv("RAVEL_FAULT_LOOP") : "";
    const std::vector<Fault> tried = mode == "all"     ? every
                                     : mode == "count" ? std::vector<Fault>()
                                                       : SampleOf(every, kSpread);
    size_t failing = 0, designed = 0;
    // RAVEL_FAULT_FROM=N starts at the N-th fault tried: a long loop shared among processes.
    const char* from = std::getenv("RAVEL_FAULT_FROM");
    for (size_t i = from ? std::max(std::strtoul(from, nullptr, 10), 1ul) - 1 : 0; i < tried.size();
         ++i) {
        const Fault& fault = tried[i];
        const Outcome outcome = RunAndCheck(scenario, &fault);
        failing += !outcome.found.empty();
        designed += outcome.designed && outcome.found.empty();
        std::printf("[%s %s %zu/%zu] %s when=%d %s: %s\n", scenario.name, kind.name.c_str(), i + 1,
                    tried.size(), Short(fault.line).c_str(), fault.when, fault.error.c_str(),
                    !outcome.found.empty() ? "FOUND"
                    : outcome.designed     ? "ok, as designed"
                                           : "ok");
        for (const std::string& finding : outcome.found)
            std::printf("  FINDING %s\n", finding.c_str());
        std::fflush(stdout);
        EXPECT_TRUE(outcome.found.empty()) << Short(fault.line) << " " << fault.error;
    }
    std::printf("SUMMARY scenario=%s kind=%s points=%zu faults=%zu tried=%zu tried_points=%zu "
                "designed=%zu found=%zu\n",
                scenario.name, kind.name.c_str(), PointCount(every), every.size(), tried.size(),
                PointCount(tried), designed, failing);
}

INSTANTIATE_TEST_SUITE_P(Agent, FaultLoop, ::testing::ValuesIn(LoopCases()), [](const auto& info) {
    return std::string(info.param.scenario->name) + "_" + info.param.kind;
});

} // namespace
