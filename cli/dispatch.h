// Chooses the command by the first argument alone.

#ifndef CLI_DISPATCH_H
#define CLI_DISPATCH_H

#include <array>

struct CommandOption {
    const char* name;
    int (*command)(int argc, const char** argv); // takes the arguments after the option
};

// The dispatch table, in the order in which its options are compared. A command's long option comes right
// before its short one.
extern const std::array<CommandOption, 12> COMMAND_OPTIONS;

// Runs the command that `argv[1]` names, on the standard streams, and prints its failure to standard error.
// Takes main's arguments and returns what main returns.
int run_command(int argc, char** argv);

#endif
