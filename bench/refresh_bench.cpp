// Refresh of an installed tree into its copy (MXPCopyDir, file by file through MXPSCopyFile)
// against rsync -rc --checksum-choice=md5 run as a child process on an identical pair of trees.
// Figures: the copy already up to date, and the copy with one file in ten changed.
#include "CommonFunctions.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char** environ;

namespace {

constexpr int kFolders = 20;
constexpr int kFilesPerFolder = 100;               // 2,000 files
constexpr int64_t kTotalBytes = 100 * 1024 * 1024; // 100 MiB
constexpr int kChangedEvery = 10;                  // one file in ten

struct Entry {
    QString relative;
    QByteArray bytes;
};

// Deterministic, incompressible content; sizes spread from about 1 KiB to about 100 KiB.
std::vector<Entry> MakeTree() {
    std::vector<Entry> entries;
    uint64_t seed = 0x9E3779B97F4A7C15ull;
    auto next = [&seed] {
        seed ^= seed << 13;
        seed ^= seed >> 7;
        seed ^= seed << 17;
        return seed;
    };
    const int files = kFolders * kFilesPerFolder;
    const int64_t average = kTotalBytes / files;
    for (int i = 0; i < files; ++i) {
        const int64_t size =
            i == files - 1 ? 0 : average / 50 + int64_t(next() % (average * 2 - average / 25));
        Entry entry{QString("folder%1/file%2.dat").arg(i / kFilesPerFolder).arg(i), QByteArray()};
        entry.bytes.resize(size);
        for (auto& byte : entry.bytes)
            byte = char(next() >> 24);
        entries.push_back(std::move(entry));
    }
    // The last file takes up what is left, so that the tree holds exactly 100 MiB.
    int64_t used = 0;
    for (const Entry& entry : entries)
        used += entry.bytes.size();
    entries.back().bytes = QByteArray(std::max<int64_t>(0, kTotalBytes - used), 'z');
    return entries;
}

bool Write(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

// A changed file: every other one keeps its size (only digests tell), the rest grows.
QByteArray Changed(const QByteArray& bytes, int index) {
    QByteArray changed = bytes;
    if ((index / kChangedEvery) % 2 == 0 && !changed.isEmpty())
        changed[changed.size() / 2] = char(changed[changed.size() / 2] ^ 0x55);
    else
        changed.append("appended");
    return changed;
}

// The source tree and two copies of it, one refreshed by us and one by rsync.
class Trees {
public:
    Trees() : entries_(MakeTree()) {
        for (const QString& root : {Src(), Ours(), Theirs()})
            for (const Entry& entry : entries_)
                ok_ = ok_ && Write(root + entry.relative, entry.bytes);
    }
    bool ok() const { return ok_ && dir_.isValid(); }
    QString Src() const { return dir_.filePath("src/"); }
    QString Ours() const { return dir_.filePath("ours/"); }
    QString Theirs() const { return dir_.filePath("theirs/"); }
    // Makes one file in ten of a copy differ from the source again.
    void Spoil(const QString& root) const {
        for (size_t i = 0; i < entries_.size(); i += kChangedEvery)
            Write(root + entries_[i].relative, Changed(entries_[i].bytes, int(i)));
    }

private:
    QTemporaryDir dir_;
    std::vector<Entry> entries_;
    bool ok_ = true;
};

Trees& SharedTrees() {
    static Trees trees;
    return trees;
}

int RunRsync(const QString& src, const QString& dst) {
    const std::string from = QFile::encodeName(src).toStdString();
    const std::string to = QFile::encodeName(dst).toStdString();
    const char* argv[] = {"rsync",      "-rc",      "--checksum-choice=md5",
                          from.c_str(), to.c_str(), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, "rsync", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
        return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <class Refresh>
void RefreshWith(benchmark::State& state, const QString& copy, bool changed, Refresh refresh) {
    Trees& trees = SharedTrees();
    if (!trees.ok()) {
        state.SkipWithError("could not lay out the trees");
        return;
    }
    for (auto _ : state) {
        if (changed) {
            state.PauseTiming();
            trees.Spoil(copy);
            state.ResumeTiming();
        }
        if (!refresh(trees.Src(), copy))
            state.SkipWithError("the refresh failed");
    }
}

bool Ravel(const QString& src, const QString& dst) {
    return CCommonFunctions::MXPCopyDir(src, dst);
}
bool Rsync(const QString& src, const QString& dst) {
    return RunRsync(src, dst) == 0;
}

void UnchangedRavel(benchmark::State& state) {
    RefreshWith(state, SharedTrees().Ours(), false, Ravel);
}
void UnchangedRsync(benchmark::State& state) {
    RefreshWith(state, SharedTrees().Theirs(), false, Rsync);
}
void ChangedRavel(benchmark::State& state) {
    RefreshWith(state, SharedTrees().Ours(), true, Ravel);
}
void ChangedRsync(benchmark::State& state) {
    RefreshWith(state, SharedTrees().Theirs(), true, Rsync);
}

} // namespace

// Wall-clock time: rsync's work happens in its own processes.
BENCHMARK(UnchangedRavel)
    ->Name("refresh-unchanged/ravel")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(UnchangedRsync)
    ->Name("refresh-unchanged/rsync")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ChangedRavel)
    ->Name("refresh-10pc-changed/ravel")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ChangedRsync)
    ->Name("refresh-10pc-changed/rsync")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
