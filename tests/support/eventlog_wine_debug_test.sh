#!/usr/bin/env bash
# The real event-log path, seen from outside: Wine stores no events, but with
# WINEDEBUG=+eventlog it prints every string given to ReportEventW on stderr.
# Usage: eventlog_wine_debug_test.sh <wine-run> <kestal_support_tests.exe>
set -euo pipefail
wine_run=$1
exe=$2
err=$(WINEDEBUG=+eventlog "$wine_run" "$exe" --gtest_filter=LogLines.RealEventLogReceivesReportedStrings 2>&1 >/dev/null) || {
    echo "the probe failed"; echo "$err"; exit 1; }
status=0
# Wine prints an error-type string on its err channel, a warning on warn, anything else on
# trace: so the channel shows the event type too.
for expected in ':warn:eventlog:ReportEventW L"EventLogProbe warning line"' \
                ':trace:eventlog:ReportEventW L"EventLogProbe entry line"'; do
    if ! grep -qF "$expected" <<<"$err"; then
        echo "not in Wine's event-log output: $expected"
        status=1
    fi
done
[ "$status" = 0 ] || echo "$err"
exit "$status"
