// The agent's one trace log: source position, time stamp, indentation, message.
#pragma once

#include <QFile>
#include <cstring>

class CEasyLog : public QFile {
public:
    CEasyLog();
    ~CEasyLog() override;

    void Init(const QString& fileName);
    void WriteLogInfo(const char* format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;

    // Back to the freshly built state (file closed, no banner written), so that one process
    // can exercise several start-ups.
    void ResetForTesting();

    int m_nIndent;
    int m_nLine;
    char m_szFile[256];
    int m_bEnable;

private:
    void ResetFields();
    void WriteBanner(const char* banner);
    void WritePiece(const QString& piece);
};

extern CEasyLog g_EazyLog;
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
