// The operating systems that the platform knows, by code.

#ifndef PLATFORM_OS_NAMES_H
#define PLATFORM_OS_NAMES_H

// The key of an operating-system code ("redhat_x64" for 5); "INVALID" for a code that is not in the table.
const char* QV_os_name(int os);

// The highest code; codes run from 1 to it without a gap.
int QV_os_count();

#endif
