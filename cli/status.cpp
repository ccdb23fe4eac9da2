#include "cli/status.h"

#include "cli/message_buffers.h"
#include "cli/messages.h"
#include "platform/debug_log.h"
#include "platform/message_catalog.h"

#include <ostream>

const std::array<status_message, 29> STATUS_MESSAGES = {{
    {20, "TqlRpo0008N"},   {104, "TqlRpo0022N"},  {110, "TqlRpo0003N"},  {111, "TqlRpo0004N"},
    {117, "TqlRpo0006N"},  {118, "TqlRpo0006N"},  {132, "TqlRpo0002N"},  {153, "TqlRpo0005N"},
    {5761, "TqlRpo0035N"}, {5930, "TqlRpo0006N"}, {7214, "TqlRpo0018N"}, {7215, "TqlRpo0016N"},
    {7216, "TqlRpo0017N"}, {7217, "TqlRpo0013N"}, {7218, "TqlRpo0009N"}, {7219, "TqlRpo0020N"},
    {7220, "TqlRpo0010N"}, {7221, "TqlRpo0021N"}, {7225, "TqlRpo0012N"}, {7235, "TqlRpo0015N"},
    {7236, "TqlRpo0011N"}, {7237, "TqlRpo0014N"}, {7252, "TqlRpo0019N"}, {7264, "TqlRpo0037N"},
    {7265, "TqlRpo0038N"}, {7266, "TqlRpo0039N"}, {7267, "TqlRpo0040N"}, {8000, "TqlRpo0006N"},
    {9103, "TqlRpo0007N"},
}};

namespace {

constexpr const char* GENERAL_MESSAGE = "TqlRpo0024N";
constexpr int STATUS_WITHOUT_LOG_LINE = 55;

// The message of a status with a text of its own; null for another.
const char* find_status_message(int code) {
    for (const status_message& row : STATUS_MESSAGES)
        if (row.code == code)
            return row.id;
    return nullptr;
}

// Fills `msg` and, for a status with a text of its own, `msg_E`.
void look_up_status(int status) {
    const char* id = find_status_message(status);
    msg_E[0] = '\0';
    if (id != nullptr) // The text holds no conversion; the number is there for the general text alone.
        mxgetmsg(id, lc_messages, sizeof msg, msg, "C", sizeof msg_E, msg_E, english_text(id), status);
    else
        mxgetmsg(GENERAL_MESSAGE, lc_messages, sizeof msg, msg, nullptr, 0, nullptr,
                 english_text(GENERAL_MESSAGE), status);
}

bool is_logged(int status) {
    return status != STATUS_NOT_ADMINISTRATOR && status != STATUS_CONFIGURATION &&
           status != STATUS_NO_MASTER_SERVER && status != STATUS_WITHOUT_LOG_LINE;
}

void report(int status, const char* function, std::ostream& out) {
    look_up_status(status);
    // What the user called off is no error.
    out << (status == STATUS_DELETE_CANCELED ? "" : "Error: ") << msg << std::endl;
    if (is_logged(status))
        logmsg(16, msg_E[0] != '\0' ? msg_E : getECmsgl(status, 0), function);
}

} // namespace

void showCommandStatus(int status, const char* function, std::ostream& out) {
    if (status != 0)
        report(status, function, out);
    logmsgf(4, function, "qvrepo exit status: [%d]", status);
}
