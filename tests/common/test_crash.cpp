// A writer killed at any instant leaves the old file or the new one, never a torn one.
#include "CommonFunctions.h"
#include "StoreTestUtil.h"

#include <QDir>
#include <QRegularExpression>
#include <csignal>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Starts the writer on the file and returns its PID once it has saved once; -1 on failure.
pid_t StartWriter(const QString& file) {
    QByteArray path = QFile::encodeName(file);
    char* const argv[] = {const_cast<char*>(STORE_WRITER), path.data(), nullptr};
    int channel[2];
    if (pipe(channel) != 0)
        return -1;
    // Spawned rather than forked: copying a sanitizer build's address space is slow.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, channel[0]);
    pid_t pid = -1;
    if (posix_spawn(&pid, STORE_WRITER, &actions, nullptr, argv, environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(channel[1]);
    char ready = 0;
    const bool started = pid > 0 && read(channel[0], &ready, 1) == 1;
    close(channel[0]);
    if (!started && pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return started ? pid : -1;
}

TEST(StoreCrashSafety, KilledWriterLeavesTheOldOrTheNewFile) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString file = dir.filePath("UserInfo.dat");
    // A long value makes every save big enough to be caught half-way.
    WriteConfigure("Pad", "Data", QString(32768, 'p'), file);
    WriteConfigure("State", "Value", "new", file);
    const QByteArray newBytes = ReadBytes(file);
    const QByteArray oldBytes = QByteArray(newBytes).replace("<Value>new<", "<Value>old<");
    // Qt's own temporary files are named after the target plus six characters.
    const QRegularExpression leftover("^UserInfo\\.dat\\.[A-Za-z0-9]{6}$");

    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<useconds_t> delay(0, 2000);
    int seen[2] = {0, 0};
    for (int round = 0; round < 200; ++round) {
        const pid_t writer = StartWriter(file);
        ASSERT_GT(writer, 0);
        usleep(delay(random));
        kill(writer, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer ended by itself, status " << status;

        const QByteArray bytes = ReadBytes(file);
        ASSERT_TRUE(bytes == oldBytes || bytes == newBytes) << "round " << round;
        const QString value = GetConfigure("State", "Value", "", file).toString();
        ASSERT_TRUE(value == "old" || value == "new");
        ++seen[value == "new"];
        for (const QString& name :
             QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot))
            ASSERT_TRUE(name == "UserInfo.dat" || leftover.match(name).hasMatch())
                << name.toStdString();
    }
    EXPECT_GT(seen[0] + seen[1], 0);
}

} // namespace
