// The product's status codes: what an operation returns or throws, and what qvrepo exits with. The platform and
// the web service have further ones, which are passed on as they are.

#ifndef PLATFORM_STATUS_CODES_H
#define PLATFORM_STATUS_CODES_H

// Plain numbers, as statuses are thrown and caught as int.
inline constexpr int STATUS_INVALID_PARAMETER = 20;
inline constexpr int STATUS_INVALID_PATH = 104;
inline constexpr int STATUS_CONFIGURATION = 110;
inline constexpr int STATUS_NO_MASTER_SERVER = 111;
inline constexpr int STATUS_NOT_ADMINISTRATOR = 132;
inline constexpr int STATUS_NOT_MASTER_SERVER = 153;
inline constexpr int STATUS_COPY_FAILED = 7214;
inline constexpr int STATUS_UNREADABLE_ARCHIVE = 7215;
inline constexpr int STATUS_UNRECOGNIZED_NAME = 7216;
inline constexpr int STATUS_NO_REPOSITORY = 7217;
inline constexpr int STATUS_PACKAGE_EXISTS = 7218;
inline constexpr int STATUS_INVALID_PACKAGE_ID = 7219;
inline constexpr int STATUS_PACKAGE_NOT_FOUND = 7220;
inline constexpr int STATUS_DELETE_CANCELED = 7221;
inline constexpr int STATUS_FILE_NOT_FOUND = 7225;
inline constexpr int STATUS_UNREADABLE_PACKAGE = 7235;
inline constexpr int STATUS_INVALID_SIGNATURE = 7236;
inline constexpr int STATUS_NO_PUBLIC_KEY = 7237;
inline constexpr int STATUS_EXTRACTION_FAILED = 7252;
inline constexpr int STATUS_REPOSITORY_FULL = 7263;
inline constexpr int STATUS_UNSUPPORTED_VERSION = 7264;
inline constexpr int STATUS_UNSUPPORTED_TYPE = 7265;
inline constexpr int STATUS_UNSUPPORTED_OS = 7266;
inline constexpr int STATUS_UNSUPPORTED_EEB_VERSION = 7267;
inline constexpr int STATUS_UNEXPECTED_RESPONSE = 9103;

#endif
