// The access log: one JSON object per request and line, written before the answer is sent.
//
//   {"time": "2026-11-20T23:34:00.123Z", "method": "GET", "target": "/quorvelle/deployment/packages",
//   "accept": "...",
//    "contentType": "", "body": "", "status": 200}
//
// The target is the one of the request line, byte by byte. Of the body, the first 64 KiB are written.

#ifndef MASTER_ACCESS_LOG_H
#define MASTER_ACCESS_LOG_H

#include "master/service.h"
#include "platform/file_descriptor.h"

#include <mutex>
#include <string>

class AccessLog {
  public:
    // Appends to `file`, which is created when it is missing; without a name the log is kept nowhere. Throws
    // StartFailure when the file cannot be opened.
    explicit AccessLog(std::string file = "");

    // Opens the file of that name again, for one that was renamed meanwhile. Where this fails, it logs why
    // and keeps the old file.
    void reopen() noexcept;

    // Writes the line of one request; callable from all threads. A failure is logged and stops nothing.
    void write(const ServiceRequest& request, int status) noexcept;

  private:
    const std::string path_;
    FileDescriptor file_;
    std::mutex mutex_;
};

#endif
