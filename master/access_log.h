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
    // A log that is kept nowhere.
    AccessLog() = default;

    // Appends to `file`, which is created when it is missing. Throws StartFailure when it cannot be opened.
    explicit AccessLog(const std::string& file);

    // Writes the line of one request; callable from all threads. A failure is reported and stops nothing.
    void write(const ServiceRequest& request, int status) noexcept;

  private:
    FileDescriptor file_;
    std::mutex mutex_;
};

#endif
