// The words by which a command is chosen.

#ifndef CLI_OPTIONS_H
#define CLI_OPTIONS_H

#include <array>

struct command_option {
    const char* word;
    int (*command)(int argc, const char** argv); // takes the words after the option word
};

// The dispatch table, in the order in which its words are compared. A command's long word comes right before
// its short one.
extern const std::array<command_option, 12> COMMAND_OPTIONS;

#endif
