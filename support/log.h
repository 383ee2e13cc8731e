// Logging to the daily file and the event log.
#pragma once

// Levels callers pass; smaller is more severe.
enum KSP_LOG_LEVEL {
    KSP_LOG_FAILURE = 1,
    KSP_LOG_WARNING = 2,
    KSP_LOG_ENTRY = 4,
    KSP_LOG_STEP = 8,
    KSP_LOG_TRACE = 10,
};
