#ifndef CLI_STARTUP_H
#define CLI_STARTUP_H

#include <string>

// The checks that every repository command makes once its own arguments are right: the user is an administrator,
// the master configuration is there, this machine is the master server, and one percent of the repository's
// volume is free. Opens the debug log where its directory exists. Returns 0 with the master server's name in
// `masterServer`, or 132, 110, 111, 153 or 7263; with 153 and 7263 the name is filled in as well.
int initialize(std::string& masterServer);

#endif
