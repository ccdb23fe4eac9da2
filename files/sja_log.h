// The archive reader's diagnostic sink.

#ifndef FILES_SJA_LOG_H
#define FILES_SJA_LOG_H

// Emits nothing: what an administrator is told about packages comes from the repository's file operations.
// The messages stay in place, with their arguments checked, for a build that sends them to a debug stream.
__attribute__((format(printf, 1, 2))) inline void log_msg(const char* /*format*/, ...) {}

#endif
