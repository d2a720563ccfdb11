#include "Charts.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

namespace {

constexpr int kWidth = 1200, kHeight = 460;
constexpr int kLeft = 70, kRight = 20, kTop = 64, kBottom = 70;
constexpr int kPlotWidth = kWidth - kLeft - kRight;
constexpr int kPlotHeight = kHeight - kTop - kBottom;
const char* const kDayNames[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

// Simulated moments are local times kept as UTC, so UTC breaks them down.
std::string MinuteText(uint64_t minute) {
    const time_t moment = time_t(kDayZero) + time_t(minute) * 60;
    struct tm parts;
    gmtime_r(&moment, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
    return text;
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

// The busiest minute within each pixel column.
std::vector<uint32_t> Columns(const std::vector<uint32_t>& perMinute, size_t minutes) {
    std::vector<uint32_t> columns(kPlotWidth);
    for (size_t i = 0; i < std::min(minutes, perMinute.size()); ++i) {
        uint32_t& column = columns[i * kPlotWidth / minutes];
        column = std::max(column, perMinute[i]);
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

void DrawAxes(std::ostringstream& out, const FleetModel& model, uint32_t top) {
    const uint32_t step = TickStep(top);
    for (uint32_t value = 0; value <= top; value += step) {
        const int y = kTop + kPlotHeight - int(uint64_t(value) * kPlotHeight / top);
        out << "<line x1=\"" << kLeft << "\" y1=\"" << y << "\" x2=\"" << kLeft + kPlotWidth
            << "\" y2=\"" << y << "\" stroke=\"#ddd\"/>\n"
            << "<text x=\"" << kLeft - 6 << "\" y=\"" << y + 4 << "\" text-anchor=\"end\">" << value
            << "</text>\n";
    }
    for (uint32_t day = 0; day <= model.days; ++day) {
        const int x = kLeft + int(uint64_t(day) * kPlotWidth / model.days);
        out << "<line x1=\"" << x << "\" y1=\"" << kTop << "\" x2=\"" << x << "\" y2=\""
            << kTop + kPlotHeight + 5 << "\" stroke=\"#bbb\"/>\n";
        if (day < model.days && (model.days <= 31 || day % 7 == 0))
            out << "<text x=\"" << x + kPlotWidth / model.days / 2 << "\" y=\""
                << kTop + kPlotHeight + 18 << "\" text-anchor=\"middle\">" << kDayNames[day % 7]
                << "</text>\n";
    }
    out << "<rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\"" << kPlotWidth
        << "\" height=\"" << kPlotHeight << "\" fill=\"none\" stroke=\"#333\"/>\n"
        << "<text x=\"" << kLeft + kPlotWidth / 2 << "\" y=\"" << kHeight - 36
        << "\" text-anchor=\"middle\">days from Monday " << MinuteText(0).substr(0, 10)
        << " (local time; each pixel column shows its busiest minute)</text>\n"
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

std::string PerMinuteCsv(const std::vector<uint32_t>& perMinute) {
    std::string text = "minute,launches\n";
    for (size_t minute = 0; minute < perMinute.size(); ++minute)
        text += MinuteText(minute) + "," + std::to_string(perMinute[minute]) + "\n";
    return text;
}

bool ParsePerMinuteCsv(const std::string& text, std::vector<uint32_t>& perMinute,
                       std::string& error) {
    std::istringstream lines(text);
    std::string line;
    size_t number = 0;
    perMinute.clear();
    while (std::getline(lines, line)) {
        ++number;
        if (number == 1 && line == "minute,launches")
            continue;
        unsigned long count = 0;
        char tail = 0;
        const size_t comma = line.find(',');
        if (comma != 16 || std::sscanf(line.c_str() + comma + 1, "%lu%c", &count, &tail) != 1 ||
            line[comma + 1] < '0' || line[comma + 1] > '9' || count > UINT32_MAX) {
            error = "line " + std::to_string(number) + " is not \"yyyy-MM-dd hh:mm,COUNT\"";
            return false;
        }
        perMinute.push_back(static_cast<uint32_t>(count));
    }
    if (perMinute.empty()) {
        error = "no minute in the table";
        return false;
    }
    return true;
}

std::string PerMinuteSvg(const FleetModel& model, const std::vector<uint32_t>& perMinute,
                         const Overlay& overlay) {
    const size_t minutes = size_t(model.days) * 1440;
    const std::vector<uint32_t> main = Columns(perMinute, minutes);
    const std::vector<uint32_t> other = Columns(overlay.perMinute, minutes);
    uint32_t top = std::max(*std::max_element(main.begin(), main.end()),
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
        << "Updater launches per minute seen by the update server</text>\n"
        << "<text x=\"" << kWidth / 2 << "\" y=\"44\" text-anchor=\"middle\">"
        << Escape(DescribeModel(model)) << "</text>\n";
    DrawAxes(out, model, top);
    const bool twoLines = !overlay.perMinute.empty();
    if (twoLines)
        out << Polyline(other, top, "#1f77b4");
    out << Polyline(main, top, "#d62728");
    if (twoLines) {
        DrawLegend(out, "#d62728", "these settings", 0);
        DrawLegend(out, "#1f77b4", overlay.label, 1);
    }
    out << "</svg>\n";
    return out.str();
}

bool WriteTextFile(const std::string& path, const std::string& text, std::string& error) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (file)
        file.write(text.data(), std::streamsize(text.size()));
    if (file)
        file.close();
    if (!file) {
        error = "cannot write '" + path + "': " + std::strerror(errno);
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
