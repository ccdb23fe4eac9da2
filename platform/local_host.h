// Which names are this machine's.

#ifndef PLATFORM_LOCAL_HOST_H
#define PLATFORM_LOCAL_HOST_H

#include <string>

// Whether `name` means this machine: it equals the host name or the fully qualified host name (no letter
// case), or resolves to an address of one of this machine's interfaces, all of 127.0.0.0/8 and ::1 included.
// Where the host name already decides, no resolver is asked.
bool is_this_host(const std::string& name);

// By what the name means this machine; the first of these that does.
enum class HostMatch { NONE, HOST_NAME, QUALIFIED_NAME, ADDRESS };
HostMatch match_this_host(const std::string& name);

#endif
