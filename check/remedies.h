// The commands that mend what was found, as text for a shell.

#ifndef CHECK_REMEDIES_H
#define CHECK_REMEDIES_H

#include <string>

#include <sys/stat.h>

// Deletes the package with its files.
std::string deletion(const std::string& id);

// Takes the package's registration from the service alone; no file is touched.
std::string unregistration(const std::string& id, const std::string& master_server);

std::string removal_of_file(const std::string& path);
std::string moving_away(const std::string& path);

// Gives the file to root alone to write; empty where it is so.
std::string tightening(const std::string& path, const struct stat& status);

// The permission bits in octal.
std::string mode_text(mode_t mode);

#endif
