// The agent's one trace log: source position, time stamp, indentation, message.
#pragma once

#include <QFile>
#include <cstring>

// Lines read "[source(line)][yyyy-MM-dd hh:mm:ss]", one tab per indentation level, then
// "[message]-->" and the line break; banners mark each start and the end of the process.
class CEasyLog : public QFile {
public:
    // Logging is on but nothing is written until Init opens the file.
    CEasyLog();
    // Writes the closing banner when the log is open.
    ~CEasyLog() override;

    // Turns logging off when "LOG"/"LogSwitch" of g_qstrOrgPath + "Tidewater.dat" reads as 0.
    // Otherwise creates the log folder (GetDuplicatePath(true), one level, CCommonFunctions::
    // MakeFolder) and the file `fileName` in it, gives both their modes (opened to everyone, or
    // the owner's alone per-user: setFilePermissions), empties a file over 5 MiB, and writes the
    // start banner. Failures are not reported: an unopened log stays silent.
    void Init(const QString& fileName);
    // Formats one line (message cut at 1022 characters) and writes and flushes it; does nothing
    // when logging is off or the file is not open.
    void WriteLogInfo(const char* format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;

    // Back to the freshly built state (file closed, no banner written), so that one process
    // can exercise several start-ups.
    void ResetForTesting();

    // Call-site state, set by the macros below: tabs before the message, source line and name.
    int m_nIndent;
    int m_nLine;
    char m_szFile[256];
    // Non-zero while logging is on.
    int m_bEnable;

private:
    void ResetFields();
    void WriteBanner(const char* banner);
    void WritePiece(const QString& piece);
};

// The process's one log.
extern CEasyLog g_EazyLog;
// The line break written after every line.
extern const char* g_chgLine;

// Records the call site, then writes one line. Source names are given per library through
// RAVEL_LOG_SOURCE so that every line of the agent reads "Src/ravel".
#define EASYLOG_AT(source, line, ...)                                                              \
    do {                                                                                           \
        if (g_EazyLog.m_bEnable) {                                                                 \
            std::strncpy(g_EazyLog.m_szFile, (source), 255);                                       \
            g_EazyLog.m_szFile[255] = '\0';                                                        \
            g_EazyLog.m_nLine = (line);                                                            \
        }                                                                                          \
        g_EazyLog.WriteLogInfo(__VA_ARGS__);                                                       \
    } while (0)

#ifndef RAVEL_LOG_SOURCE
#define RAVEL_LOG_SOURCE __FILE__
#endif

#define RAVEL_LOG(...) EASYLOG_AT(RAVEL_LOG_SOURCE, __LINE__, __VA_ARGS__)

// Function tracing: Enter and Leave share one depth, the body is one tab deeper.
#define RAVEL_ENTER(name)                                                                          \
    do {                                                                                           \
        RAVEL_LOG("%s: Enter", name);                                                              \
        ++g_EazyLog.m_nIndent;                                                                     \
    } while (0)
#define RAVEL_LEAVE(name)                                                                          \
    do {                                                                                           \
        --g_EazyLog.m_nIndent;                                                                     \
        RAVEL_LOG("%s: Leave", name);                                                              \
    } while (0)
