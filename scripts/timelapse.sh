#!/usr/bin/env bash
# The real agent through simulated days on a clock libfaketime runs 600 times faster: at each
# login the inspector (ravel-schedule) is asked for its verdict and window, the installed copy
# starts as a login starts it, and at logout the resident copy is ended with SIGTERM as a session's
# end ends it. Prints, per login, the verdict and window announced, the first check, the launches,
# the checks, how late the latest came, the resident's memory growth and descriptors, and the
# findings: a launch outside its window or before its cycle is over, a check off its pace, memory
# or descriptors that grow, a malformed log. Each desktop runs in private namespaces of its own
# (needs root, as the tests do); several run at once. A day of nine hours takes about a minute.
# Builds the default preset first. Status 0 when every login passed, 1 otherwise, 2 for a bad
# command line. Logs and records are kept in build/timelapse/ (or --out DIR).
# Usage: scripts/timelapse.sh [--days N] [--speed X] [--out DIR] [SCENARIO] [KEY=VALUE...]
#   --days N    days with logins, 1 to 60 (2)
#   --speed X   simulated seconds per real second, 60 to 3600 (600)
# Scenarios: auto (AutoCheckNow 1), range-inside (AutoCheckNow 0, 240 minutes), range-beyond
#   (AutoCheckNow 0, 1440 minutes, a lunch break), two-day-cycle (TimerMinutes 5), dst-new-york
#   and dst-berlin (a week over a daylight-saving change, every day). With no scenario and no
#   setting every scenario runs; with settings alone "auto" runs, changed by them.
# Settings, KEY=VALUE, later ones win:
#   Tidewater.dat, "UpdateSetting": AutoCheckNow, TimeRandomRange, TimerMinutes (1 to 1440),
#     ConfigCycleDefault, RunWithSystem
#   UserInfo.dat: Strategy, UpdateCycle (0 to 3650), LastLaunchTime ("yyyy-MM-dd hh:mm:ss"; by
#     default the scenario's last run before the first day), LastStatus, DelayTimes, DelayTime
#   the desktop: TZ (a zone, e.g. Europe/Berlin), start (yyyy-MM-dd, the first day), sessions
#     (HH:MM-HH:MM[,HH:MM-HH:MM...], the logins of each day), jitter (0 to 120: minutes each login
#     and logout may come later, drawn the same way every run), weekends (yes or no)
# Example: a working week of your own settings, on Tokyo's clock:
#   scripts/timelapse.sh --days 5 AutoCheckNow=0 TimeRandomRange=120 TZ=Asia/Tokyo sessions=09:00-18:00
. "$(dirname "$0")/help.sh" "$@"
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh >/dev/null
cmake --preset default >/dev/null
cmake --build --preset default --target timelapse >/dev/null
exec build/tests/timelapse/timelapse "$@"
