#include "Charts.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kWidth = 1200, kHeight = 460;
constexpr int kLeft = 70, kRight = 20, kTop = 64, kBottom = 70;
constexpr int kPlotWidth = kWidth - kLeft - kRight;
constexpr int kPlotHeight = kHeight - kTop - kBottom;
const char* const kDayNames[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

// Moments are kept as seconds read as UTC, so UTC breaks them down.
std::string MinuteText(uint64_t seconds) {
    const time_t moment = time_t(seconds);
    struct tm parts;
    gmtime_r(&moment, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
    return text;
}

// "yyyy-MM-dd hh:mm" as seconds read as UTC; false for another text.
bool ParseMinute(const std::string& text, uint64_t& seconds) {
    struct tm parts {};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M", &parts);
    if (text.size() != 16 || !end || *end)
        return false;
    seconds = uint64_t(timegm(&parts));
    return true;
}

int Weekday(uint64_t seconds) {            // 0 is Monday
    return int((seconds / 86400 + 3) % 7); // 1970-01-01 was a Thursday
}

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// A round step (1, 2 or 5 times a power of ten) giving about five ticks up to `top`.
uint32_t TickStep(uint32_t top) {
    uint32_t step = 1;
    for (uint32_t power = 1;; power *= 10) {
        for (uint32_t factor : {1u, 2u, 5u}) {
            step = factor * power;
            if (uint64_t(step) * 5 >= top)
                return step;
        }
    }
}

// The busiest minute within each pixel column, for `minutes` minutes from `origin`.
std::vector<uint32_t> Columns(const Series& series, uint64_t origin, size_t minutes) {
    std::vector<uint32_t> columns(kPlotWidth);
    for (size_t i = 0; i < series.perMinute.size(); ++i) {
        const int64_t at = (int64_t(series.origin) - int64_t(origin)) / 60 + int64_t(i);
        if (at < 0 || at >= int64_t(minutes))
            continue;
        uint32_t& column = columns[size_t(at) * kPlotWidth / minutes];
        column = std::max(column, series.perMinute[i]);
    }
    return columns;
}

std::string Polyline(const std::vector<uint32_t>& columns, uint32_t top, const char* colour) {
    std::ostringstream out;
    out << "<polyline fill=\"none\" stroke=\"" << colour << "\" stroke-width=\"1\" points=\"";
    for (int x = 0; x < kPlotWidth; ++x) {
        const double y = kTop + kPlotHeight - double(columns[x]) * kPlotHeight / top;
        out << (x ? " " : "") << kLeft + x << ',' << std::round(y * 10) / 10;
    }
    out << "\"/>\n";
    return out.str();
}

void DrawAxes(std::ostringstream& out, uint64_t origin, uint32_t days, uint32_t top) {
    const uint32_t step = TickStep(top);
    for (uint32_t value = 0; value <= top; value += step) {
        const int y = kTop + kPlotHeight - int(uint64_t(value) * kPlotHeight / top);
        out << "<line x1=\"" << kLeft << "\" y1=\"" << y << "\" x2=\"" << kLeft + kPlotWidth
            << "\" y2=\"" << y << "\" stroke=\"#ddd\"/>\n"
            << "<text x=\"" << kLeft - 6 << "\" y=\"" << y + 4 << "\" text-anchor=\"end\">" << value
            << "</text>\n";
    }
    for (uint32_t day = 0; day <= days; ++day) {
        const int x = kLeft + int(uint64_t(day) * kPlotWidth / days);
        out << "<line x1=\"" << x << "\" y1=\"" << kTop << "\" x2=\"" << x << "\" y2=\""
            << kTop + kPlotHeight + 5 << "\" stroke=\"#bbb\"/>\n";
        if (day < days && (days <= 31 || day % 7 == 0))
            out << "<text x=\"" << x + kPlotWidth / days / 2 << "\" y=\"" << kTop + kPlotHeight + 18
                << "\" text-anchor=\"middle\">"
                << kDayNames[Weekday(origin + uint64_t(day) * kSecondsPerDay)] << "</text>\n";
    }
    out << "<rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\"" << kPlotWidth
        << "\" height=\"" << kPlotHeight << "\" fill=\"none\" stroke=\"#333\"/>\n"
        << "<text x=\"" << kLeft + kPlotWidth / 2 << "\" y=\"" << kHeight - 36
        << "\" text-anchor=\"middle\">days from " << kDayNames[Weekday(origin)] << " "
        << MinuteText(origin).substr(0, 10)
        << " (each pixel column shows its busiest minute)</text>\n"
        << "<text transform=\"translate(18," << kTop + kPlotHeight / 2
        << ") rotate(-90)\" text-anchor=\"middle\">updater launches per minute</text>\n";
}

void DrawLegend(std::ostringstream& out, const char* colour, const std::string& label, int row) {
    const int y = kHeight - 14;
    const int x = kLeft + row * (kPlotWidth / 2);
    out << "<line x1=\"" << x << "\" y1=\"" << y - 4 << "\" x2=\"" << x + 24 << "\" y2=\"" << y - 4
        << "\" stroke=\"" << colour << "\" stroke-width=\"2\"/>\n"
        << "<text x=\"" << x + 30 << "\" y=\"" << y << "\">" << Escape(label) << "</text>\n";
}

} // namespace

std::string PerMinuteCsv(const Series& series) {
    std::string text = "minute,launches\n";
    for (size_t minute = 0; minute < series.perMinute.size(); ++minute)
        text += MinuteText(series.origin + minute * 60) + "," +
                std::to_string(series.perMinute[minute]) + "\n";
    return text + "# " + series.label + "\n";
}

bool ParsePerMinuteCsv(const std::string& text, Series& series, std::string& error) {
    std::istringstream lines(text);
    std::string line;
    size_t number = 0;
    series = Series();
    while (std::getline(lines, line)) {
        ++number;
        if (number == 1 && line == "minute,launches")
            continue;
        if (line.rfind("# ", 0) == 0) {
            series.label = line.substr(2);
            continue;
        }
        unsigned long count = 0;
        char tail = 0;
        uint64_t minute = 0;
        const size_t comma = line.find(',');
        if (comma != 16 || !ParseMinute(line.substr(0, 16), minute) ||
            std::sscanf(line.c_str() + comma + 1, "%lu%c", &count, &tail) != 1 ||
            line[comma + 1] < '0' || line[comma + 1] > '9' || count > UINT32_MAX) {
            error = "line " + std::to_string(number) + " is not \"yyyy-MM-dd hh:mm,COUNT\"";
            return false;
        }
        if (series.perMinute.empty())
            series.origin = minute;
        if (minute != series.origin + series.perMinute.size() * 60) {
            error = "line " + std::to_string(number) + " is not the minute after the line before";
            return false;
        }
        series.perMinute.push_back(static_cast<uint32_t>(count));
    }
    if (series.perMinute.empty()) {
        error = "no minute in the table";
        return false;
    }
    return true;
}

std::string PerMinuteSvg(const std::string& title, const std::string& subtitle, const Series& main,
                         const Series& overlay) {
    const uint32_t days = uint32_t(std::max<size_t>(1, (main.perMinute.size() + 1439) / 1440));
    const size_t minutes = size_t(days) * 1440;
    const std::vector<uint32_t> ours = Columns(main, main.origin, minutes);
    const std::vector<uint32_t> other = Columns(overlay, main.origin, minutes);
    uint32_t top = std::max(*std::max_element(ours.begin(), ours.end()),
                            *std::max_element(other.begin(), other.end()));
    top = std::max(1u, top);
    top = (top + TickStep(top) - 1) / TickStep(top) * TickStep(top);

    std::ostringstream out;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\""
        << kHeight << "\" viewBox=\"0 0 " << kWidth << ' ' << kHeight
        << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"" << kWidth << "\" height=\"" << kHeight << "\" fill=\"white\"/>\n"
        << "<text x=\"" << kWidth / 2 << "\" y=\"22\" text-anchor=\"middle\" font-size=\"16\">"
        << Escape(title) << "</text>\n"
        << "<text x=\"" << kWidth / 2 << "\" y=\"44\" text-anchor=\"middle\">" << Escape(subtitle)
        << "</text>\n";
    DrawAxes(out, main.origin, days, top);
    const bool twoLines = !overlay.perMinute.empty();
    if (twoLines)
        out << Polyline(other, top, "#1f77b4");
    out << Polyline(ours, top, "#d62728");
    if (twoLines) {
        DrawLegend(out, "#d62728", main.label, 0);
        DrawLegend(out, "#1f77b4", overlay.label, 1);
    }
    out << "</svg>\n";
    return out.str();
}

bool WriteTextFile(const std::string& path, const std::string& text, std::string& error) {
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    bool written = fd >= 0;
    for (size_t done = 0; written && done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        written = n > 0;
        done += written ? size_t(n) : 0;
    }
    // Readable as a file written afresh would be (mkstemp makes it private to its owner).
    const mode_t mask = umask(0);
    umask(mask);
    written = written && fchmod(fd, 0666 & ~mask) == 0;
    written =
        (fd >= 0 && close(fd) == 0 && written) && rename(temporary.c_str(), path.c_str()) == 0;
    if (!written) {
        error = "cannot write '" + path + "': " + std::strerror(errno);
        if (fd >= 0)
            unlink(temporary.c_str());
        return false;
    }
    return true;
}

bool ReadTextFile(const std::string& path, std::string& text, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    if (file)
        content << file.rdbuf();
    if (!file) {
        error = "cannot read '" + path + "': " + std::strerror(errno);
        return false;
    }
    text = content.str();
    return true;
}
