// The debug log: one line per record, in a file per day, written only where an administrator made the
// directory.
//
// A record reads
//     2026-11-20T23:34:00.123Z [PID] <LEVEL> FUNCTION: TEXT
// with the time in UTC. Control characters in TEXT appear as escapes (\n, \r, \t, \x1b, \x7f, ...), so that no
// server answer or argument can forge a record; all other bytes appear as they are. A record is never cut, is
// in the file when the call returns, and does not mix with records of other processes. A record that a full
// disk cut is closed by a line feed before the next one.
//
// Levels: 2 request detail, 4 progress and results, 16 errors. All are written. Calls made while no log is
// open do nothing, and cost nothing: the format is not even rendered.

#ifndef PLATFORM_DEBUG_LOG_H
#define PLATFORM_DEBUG_LOG_H

// Opens DIRECTORY/PROGRAM/LOGNAME.YYYY-MM-DD.log (today in UTC) for appending and makes it the process's log,
// in place of one opened earlier. A file that is not there yet is created with `mode` less the process's
// mask; a directory that is not there is not created. Only a regular file is taken, and a symbolic link is
// not followed. `*status` receives 0 or an errno; on failure no log is open afterwards.
void open_debug_log(const char* directory, const char* program, const char* logName, int mode, int* status);

// Closes the log; later log calls do nothing. Without a log, does nothing.
void close_debug_log();

// Makes later records carry the number of the calling process; until then they carry that of the process that
// opened the first log.
void log_set_pid();

// Writes one record with the fixed text `text`.
void logmsg(int level, const char* text, const char* function);

// Writes one record with a printf-formatted text. Note that the function comes before the text here.
void logmsgf(int level, const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));

#endif
