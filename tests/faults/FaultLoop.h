// The machinery of the fault loop: which system calls are made to fail and with which errors, the
// calls a traced run of the agent made, the faults chosen from them and strace's command line for
// one fault.
#pragma once

#include <string>
#include <utility>
#include <vector>

// The calls a report groups under one name ("open", "write", "start", ...): each system call as
// strace names it, with the errors it is made to fail with (those it can give).
struct CallKind {
    std::string name;
    std::vector<std::pair<std::string, std::vector<std::string>>> calls;
    bool inChild = false; // made by a child the agent starts (an exec): traced with strace -f
};
// Every kind, in the order of the report; KindNamed throws std::out_of_range for an unknown name.
const std::vector<CallKind>& CallKinds();
const CallKind& KindNamed(const std::string& name);

// One call a traced run made.
struct TracedCall {
    int pid = 0;         // strace -f's
    std::string syscall; // as strace names it
    int when = 0;        // its number among the calls of `syscall` in its process, from 1
    std::string line;    // strace's line, the run's own folder written as "ROOT/"
    std::vector<std::string> files; // the paths of the descriptors it names (strace -y)
};
// The calls of strace's output (-o, -y), in order; `root` is the run's folder.
std::vector<TracedCall> ParseTrace(const std::string& text, const std::string& root);
// strace's line of a call without its result.
std::string CallText(const std::string& line);

// One call made to fail.
struct Fault {
    std::string kind, syscall; // CallKind::name; as strace names it
    int when = 0;              // strace's occurrence: the N-th call of `syscall` it counts
    std::string error;         // ENOSPC, EIO, ...
    std::string path; // what strace counts the calls on (-P): a child's program or a descriptor's
                      // file; empty: every call of the agent's process counts
    std::string line; // the call as the clean run made it, "ROOT/" for the run's folder
};
// Every fault of `kind` in a run that made `calls`: each of the agent's own calls of that kind
// (those naming its places, the process starts and the listener; for an exec, each program a
// child of the agent starts, once), with every error that applies (ENOSPC for an open only where
// it may create). A call on a descriptor of a named file counts among the calls on that file.
std::vector<Fault> EveryFault(const CallKind& kind, const std::vector<TracedCall>& calls);
// A bounded, deterministic sample: for each system call its first and last points and a spread
// between (at most `spread` points), each error at least once.
std::vector<Fault> SampleOf(const std::vector<Fault>& faults, size_t spread);
// The number of distinct calls (points: call x occurrence) among `faults`.
size_t PointCount(const std::vector<Fault>& faults);

// strace's arguments (program excluded) for a run of $RAVEL_FAULT_PROGRAM (through bash, so that
// no process but the agent lists its path: its process-table test would see a twin) in the folder
// `root`: recording every call, or making `fault` fail. The trace goes to `tracePath`.
std::vector<std::string> StraceArguments(const std::string& tracePath, const Fault* fault,
                                         const std::string& root);
// The traced line of the call strace made to fail ("ROOT/" for `root`); empty when none was.
std::string InjectedLine(const std::string& trace, const std::string& root);
// True when the injected line is the call `fault` meant: the same system call on the same path,
// decoded descriptor or program (numbers and temporary names may differ).
bool SameCall(const Fault& fault, const std::string& injectedLine);
