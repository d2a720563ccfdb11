// Launches per minute as a CSV table and as an SVG picture.
#pragma once

#include "FleetModel.h"

#include <cstdint>
#include <string>
#include <vector>

// Launches per minute from a moment on, with what made them (settings, or "observed ...").
struct Series {
    uint64_t origin = kDayZero; // the first minute, seconds since 1970 (read as UTC)
    std::vector<uint32_t> perMinute;
    std::string label;
};

// "minute,launches", one line per minute: "2024-01-01 08:00,12", then "# " and the label.
std::string PerMinuteCsv(const Series& series);
// Reads a table written by PerMinuteCsv (the label line is optional). Returns false with a
// reason in `error` when a line is not "yyyy-MM-dd hh:mm,COUNT", the minutes do not follow each
// other, or the table is empty.
bool ParsePerMinuteCsv(const std::string& text, Series& series, std::string& error);

// A standalone SVG document: the main series' launches per minute over its days (each pixel
// column shows its busiest minute), day ticks, a count axis, `title` and `subtitle` and, when the
// overlay has counts, its line over the same minutes and a legend naming both. Texts are escaped
// for XML.
std::string PerMinuteSvg(const std::string& title, const std::string& subtitle, const Series& main,
                         const Series& overlay);

// Writes `text` to `path` through a temporary file beside it, renamed over it once whole; false
// with a reason in `error` when the file cannot be written (nothing is left behind then).
bool WriteTextFile(const std::string& path, const std::string& text, std::string& error);

// Reads a whole file; false with a reason in `error` when it cannot be read.
bool ReadTextFile(const std::string& path, std::string& text, std::string& error);
