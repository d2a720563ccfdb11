// Launches per minute as a CSV table and as an SVG picture.
#pragma once

#include "FleetModel.h"

#include <cstdint>
#include <string>
#include <vector>

// "minute,launches", then one line per minute from day 0: "2024-01-01 08:00,12".
std::string PerMinuteCsv(const std::vector<uint32_t>& perMinute);

// Reads a table written by PerMinuteCsv. Returns false with a reason in `error` when a line is
// not "yyyy-MM-dd hh:mm,COUNT" or the table is empty.
bool ParsePerMinuteCsv(const std::string& text, std::vector<uint32_t>& perMinute,
                       std::string& error);

// Another run drawn beside the main one.
struct Overlay {
    std::vector<uint32_t> perMinute;
    std::string label;
};

// A standalone SVG document: launches per minute over the simulated days (each pixel column
// shows its busiest minute), day ticks, a count axis, the settings in the title and, when
// `overlay` has counts, a second line and a legend. Texts are escaped for XML.
std::string PerMinuteSvg(const FleetModel& model, const std::vector<uint32_t>& perMinute,
                         const Overlay& overlay);

// Writes `text` to `path`; false with a reason in `error` when the file cannot be written.
bool WriteTextFile(const std::string& path, const std::string& text, std::string& error);
// Reads a whole file; false with a reason in `error` when it cannot be read.
bool ReadTextFile(const std::string& path, std::string& text, std::string& error);
