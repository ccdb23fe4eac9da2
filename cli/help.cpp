#include "cli/help.h"

#include "cli/messages.h"

#include <ostream>

void showHelp(std::ostream& out) {
    for (const char* id :
         {"TqlRpo0029N", "TqlRpo0030N", "TqlRpo0031N", "TqlRpo0032N", "TqlRpo0033N", "TqlRpo0034N"})
        out << user_text(id);
}
