#include "Observe.h"

#include "Figures.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool FindIn(const fs::path& folder, std::vector<std::string>& files, std::string& error) {
    std::error_code code;
    fs::recursive_directory_iterator it(folder, code), end;
    for (; !code && it != end; it.increment(code))
        if (it->is_regular_file(code) && it->path().extension() == ".log")
            files.push_back(it->path().string());
    if (code) {
        error = "cannot read '" + folder.string() + "': " + code.message();
        return false;
    }
    return true;
}

// The first and the last moment of any launch or login, on the server's clock.
std::pair<uint64_t, uint64_t> Span(const std::vector<DesktopLog>& logs, int32_t offset) {
    uint64_t first = UINT64_MAX, last = 0;
    const auto see = [&](uint64_t moment) {
        first = std::min(first, moment - offset);
        last = std::max(last, moment - offset);
    };
    for (const DesktopLog& log : logs) {
        for (const LogSession& session : log.sessions)
            see(session.login);
        for (const LogLaunch& launch : log.launches)
            see(launch.moment);
    }
    return first > last ? std::pair<uint64_t, uint64_t>{kDayZero, kDayZero}
                        : std::pair{first, last};
}

uint32_t Quantile(const std::vector<uint32_t>& sorted, double share) {
    if (sorted.empty())
        return 0;
    const size_t rank = std::max<size_t>(1, size_t(share * double(sorted.size()) + 0.999999));
    return sorted[rank - 1];
}

std::string Counts(const Observation& o) {
    return std::to_string(o.logs) + " logs, " + std::to_string(o.logins) + " logins; " +
           std::to_string(o.malformedLines) + " malformed lines, " + std::to_string(o.cutLogs) +
           " cut logs, " + std::to_string(o.midHistoryLogs) +
           " logs emptied at 5 MiB or removed since the first deployment, " +
           std::to_string(o.neverLaunched) + " desktops with no launch";
}

} // namespace

bool FindLogs(const std::vector<std::string>& paths, std::vector<std::string>& files,
              std::string& error) {
    for (const std::string& path : paths) {
        std::error_code code;
        const fs::file_status status = fs::status(path, code);
        if (code || !fs::exists(status)) {
            error = "no such file or folder: '" + path + "'";
            return false;
        }
        if (fs::is_directory(status)) {
            if (!FindIn(path, files, error))
                return false;
        } else {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty())
        error =
            "no log found in '" + paths.front() + "'" + (paths.size() > 1 ? " and the rest" : "");
    return !files.empty();
}

Observation Observe(const std::vector<DesktopLog>& logs, const FleetModel& model,
                    int32_t utcOffset) {
    const auto [first, last] = Span(logs, utcOffset);
    const uint64_t origin = first - first % kSecondsPerDay;
    Observation o;
    o.tally = Tally(uint32_t((last - origin) / kSecondsPerDay + 1), origin);
    for (const DesktopLog& log : logs) {
        ++o.logs;
        o.logins += log.sessions.size();
        o.malformedLines += log.malformed;
        o.cutLogs += log.cut;
        o.midHistoryLogs += log.startsMidHistory;
        o.neverLaunched += log.launches.empty();
        for (size_t i = 0; i < log.launches.size(); ++i) {
            const LogLaunch& launch = log.launches[i];
            o.tally.Count(launch.moment - utcOffset, launch.moment, model);
            o.tally.resumed += launch.resumed;
            if (i > 0)
                o.gaps.push_back(uint32_t(launch.moment - log.launches[i - 1].moment));
        }
    }
    std::sort(o.gaps.begin(), o.gaps.end());
    return o;
}

std::string ObservationText(const Observation& o, const FleetModel& model) {
    std::string text = "observed: " + Counts(o) + "\n";
    text += FiguresText(model, ComputeFigures(o.tally), /*observed=*/true);
    if (!o.gaps.empty())
        text += "gap between one desktop's launches: median " + Duration(Quantile(o.gaps, 0.5)) +
                ", 95th percentile " + Duration(Quantile(o.gaps, 0.95)) + "\n";
    return text;
}

std::string ObservationJson(const Observation& o) {
    std::string json = FiguresJson(ComputeFigures(o.tally));
    json.pop_back(); // the line end
    json.pop_back(); // the closing brace
    const bool gaps = !o.gaps.empty();
    return json + ",\"logs\":" + std::to_string(o.logs) +
           ",\"logins\":" + std::to_string(o.logins) +
           ",\"malformed_lines\":" + std::to_string(o.malformedLines) +
           ",\"cut_logs\":" + std::to_string(o.cutLogs) +
           ",\"logs_emptied_or_removed\":" + std::to_string(o.midHistoryLogs) +
           ",\"desktops_without_launch\":" + std::to_string(o.neverLaunched) +
           ",\"median_gap_s\":" + (gaps ? std::to_string(Quantile(o.gaps, 0.5)) : "null") +
           ",\"p95_gap_s\":" + (gaps ? std::to_string(Quantile(o.gaps, 0.95)) : "null") + "}\n";
}
