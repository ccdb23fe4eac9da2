#ifndef CLI_HELP_H
#define CLI_HELP_H

#include <iosfwd>

// Writes the usage text to `out`, in the user's language. Leaves its last line in `outline`.
void showHelp(std::ostream& out);

#endif
