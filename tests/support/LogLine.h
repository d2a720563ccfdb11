// The form of the agent's log, for the tests that read one: each line is a banner or
// "[Src/ravel(N)][yyyy-MM-dd hh:mm:ss]", one tab per indentation level, "[" TEXT "]-->".
#pragma once

#include <regex>
#include <string>

struct LogLine {
    std::string stamp;   // "yyyy-MM-dd hh:mm:ss"
    std::string message; // TEXT
};

// True for a well-formed line, its parts in `parsed`; false for anything else, banners included.
inline bool ParseLogLine(const std::string& text, LogLine& parsed) {
    static const std::regex line(
        R"(\[Src/ravel\(\d+\)\]\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\]\t*\[(.*)\]-->)");
    std::smatch match;
    if (!std::regex_match(text, match, line))
        return false;
    parsed = {match[1], match[2]};
    return true;
}

// The banners that open and close each run's part of the log.
inline bool IsStartBanner(const std::string& text) {
    return text == "----------------------Start Log---------------------------------";
}
inline bool IsEndBanner(const std::string& text) {
    return text == "----------------------End Log-----------------------------------";
}
