// A time zone for the length of a scope: TZ set (and the C library told), then restored.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

class ZoneScope {
public:
    explicit ZoneScope(const char* zone) {
        if (const char* before = std::getenv("TZ"))
            before_ = before, had_ = true;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneScope() {
        had_ ? setenv("TZ", before_.c_str(), 1) : unsetenv("TZ");
        tzset();
    }
    ZoneScope(const ZoneScope&) = delete;
    ZoneScope& operator=(const ZoneScope&) = delete;

private:
    std::string before_;
    bool had_ = false;
};
