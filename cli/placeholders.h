// Options that are accepted and not implemented yet. Both take the arguments after the option.

#ifndef CLI_PLACEHOLDERS_H
#define CLI_PLACEHOLDERS_H

// Without arguments: says so on standard output and returns 0. With arguments: help on standard output, returns 1.
int validatePackagesCmd(int argc, const char** argv);

// With the arguments ID -dest DIRECTORY: says so on standard output and returns 0. Else help and 1.
int getPackageCmd(int argc, const char** argv);

#endif
