// ravel-schedule's report, as text for a person and as JSON for a program.
#pragma once

#include "Report.h"

#include <QJsonObject>

// The report a person reads: the files, the schedule as the agent reads it, the repairs, the
// verdict with its reason and the next launch's window, the warnings, the agent and its last check.
QString RenderText(const Inspection& inspection);

// The same findings as one JSON object:
//   "installed", "user_info", "log": the paths (strings);
//   "at": the moment asked about; "check_at": the check the verdict is for (local
//     "yyyy-MM-dd hh:mm:ss");
//   "verdict": "ends", "never", "held", "resume", "launch", "wait-cycle" or "wait-delay";
//   "reason": why, in words; "cycle_end": the end of the cycle (local time);
//   "earliest", "latest": the window of the next launch (local time), null when none is foreseen;
//   "missed": the start-up rule counts a missed delay round first (boolean);
//   "schedule": {"strategy" ("cycle"/"never"), "cycle_days", "last_launch", "status",
//     "interrupted" (boolean), "delay_round", "delay_time" (seconds since the epoch),
//     "auto_check_now", "time_random_range" (minutes), "timer_minutes", "run_with_system"};
//   "repairs": [{"section", "key", "from" (null when absent), "to"}] that the next check writes;
//   "warnings": [strings];
//   "running" (boolean), "pid" (null when none), "port_listening" (boolean);
//   "last_check": [the log's lines of the last check].
QJsonObject RenderJson(const Inspection& inspection);

// The same findings as Prometheus text exposition (for node_exporter's textfile collector), every
// series labelled installed="<installed folder>": ravel_agent_running, ravel_last_launch_,
// ravel_cycle_end_, ravel_next_launch_earliest_ and ravel_next_launch_latest_timestamp_seconds
// (the two absent when no launch is foreseen), ravel_delay_round, ravel_interrupted_run,
// ravel_verdict{verdict="..."} (1 for the verdict, 0 for every other), ravel_repairs_pending,
// ravel_warnings and ravel_log_bytes (absent without a log), each with its HELP and TYPE lines.
QString RenderPrometheus(const Inspection& inspection);
