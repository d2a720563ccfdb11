#include "LogReader.h"

#include "LogTexts.h"

#include <algorithm>
#include <ctime>
#include <sstream>

namespace {

// A format's text up to its first conversion: how its lines begin.
std::string Prefix(const char* format) {
    const std::string text(format);
    return text.substr(0, text.find('%'));
}

bool IsBanner(const std::string& line) {
    return line == logtext::kStartBanner || line == logtext::kEndBanner;
}

// "[SOURCE(LINE)][yyyy-MM-dd hh:mm:ss]<tabs>[MESSAGE]-->": the moment and the message.
bool ParseLine(const std::string& line, uint64_t& moment, std::string& message) {
    const size_t stamp = line.find(")][");
    const std::string end = logtext::kLineEnd;
    if (line.empty() || line[0] != '[' || stamp == std::string::npos || line.size() < end.size() ||
        line.compare(line.size() - end.size(), end.size(), end) != 0)
        return false;
    struct tm parts {};
    const char* rest = strptime(line.c_str() + stamp + 3, "%Y-%m-%d %H:%M:%S]", &parts);
    if (!rest || size_t(rest - line.c_str()) != stamp + 3 + 20)
        return false;
    while (*rest == '\t')
        ++rest;
    if (*rest != '[')
        return false;
    moment = uint64_t(timegm(&parts));
    message.assign(rest + 1, line.c_str() + line.size() - end.size());
    return true;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Builds the facts line by line.
class Reader {
public:
    void Line(uint64_t moment, const std::string& message) {
        static const std::string deploy = Prefix(logtext::kDeployFrom);
        static const std::string first = Prefix(logtext::kFirstDataCopy);
        static const std::string ready = Prefix(logtext::kReady);
        if (log_.lines++ == 0)
            beginsWithLogin_ = StartsWith(message, deploy);
        if (StartsWith(message, deploy)) // the installed copy starts: a login
            log_.sessions.push_back({moment, moment});
        else if (!log_.sessions.empty())
            log_.sessions.back().logout = moment;
        if (StartsWith(message, first) && log_.sessions.size() == 1)
            firstDeployment_ = true;
        if (StartsWith(message, ready) || message == logtext::kResume)
            log_.launches.push_back({moment, message == logtext::kResume});
    }
    void Malformed() { ++log_.malformed; }
    DesktopLog Result(bool cut) {
        log_.cut = cut;
        log_.startsMidHistory = !(beginsWithLogin_ && firstDeployment_);
        return log_;
    }

private:
    DesktopLog log_;
    bool beginsWithLogin_ = false, firstDeployment_ = false;
};

} // namespace

DesktopLog ReadDesktopLog(const std::string& text) {
    Reader reader;
    std::istringstream lines(text);
    std::string line, pending;
    while (std::getline(lines, line)) {
        if (pending.empty() && IsBanner(line))
            continue;
        pending += pending.empty() ? line : "\n" + line;
        uint64_t moment = 0;
        std::string message;
        if (ParseLine(pending, moment, message)) {
            reader.Line(moment, message);
            pending.clear();
        } else if (pending.size() > 4096 || pending[0] != '[') { // no message runs on this long
            reader.Malformed();
            pending.clear();
        }
    }
    if (!pending.empty())
        reader.Malformed();
    return reader.Result(!text.empty() && text.back() != '\n');
}

SessionPool PoolOf(const std::vector<DesktopLog>& logs) {
    SessionPool pool;
    for (const DesktopLog& log : logs)
        for (const LogSession& session : log.sessions) {
            const uint64_t midnight = session.login - session.login % kSecondsPerDay;
            const uint32_t weekday = uint32_t((session.login / kSecondsPerDay + 3) % 7);
            const uint32_t login = uint32_t(session.login - midnight);
            const uint32_t logout =
                uint32_t(std::min<uint64_t>(kSecondsPerDay, session.logout - midnight));
            pool.byWeekday[weekday].push_back({login, std::max(logout, login + 1)});
        }
    return pool;
}
