// Chooses the command by the first argument alone.

#ifndef CLI_DISPATCH_H
#define CLI_DISPATCH_H

#include <array>

struct command_option {
    const char* word;
    int (*command)(int argc, const char** argv); // takes the arguments after the option
};

// The dispatch table, in the order in which its options are compared. A command's long option comes right
// before its short one.
extern const std::array<command_option, 12> COMMAND_OPTIONS;

// Runs the command that `argv[1]` names, on the standard streams, and tells its failure on standard error.
// Takes main's arguments and returns what main returns.
int run_command(int argc, char** argv);

#endif
