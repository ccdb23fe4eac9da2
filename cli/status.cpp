#include "cli/status.h"

#include "cli/message_buffers.h"
#include "cli/messages.h"
#include "platform/debug_log.h"
#include "platform/message_catalog.h"
#include "platform/status_codes.h"

#include <ostream>

const std::array<StatusMessage, 29> STATUS_MESSAGES = {{
    {STATUS_INVALID_PARAMETER, "TqlRpo0008N"},
    {STATUS_INVALID_PATH, "TqlRpo0022N"},
    {STATUS_CONFIGURATION, "TqlRpo0003N"},
    {STATUS_NO_MASTER_SERVER, "TqlRpo0004N"},
    {117, "TqlRpo0006N"},
    {118, "TqlRpo0006N"},
    {STATUS_NOT_ADMINISTRATOR, "TqlRpo0002N"},
    {STATUS_NOT_MASTER_SERVER, "TqlRpo0005N"},
    {5761, "TqlRpo0035N"},
    {5930, "TqlRpo0006N"},
    {STATUS_COPY_FAILED, "TqlRpo0018N"},
    {STATUS_UNREADABLE_ARCHIVE, "TqlRpo0016N"},
    {STATUS_UNRECOGNIZED_NAME, "TqlRpo0017N"},
    {STATUS_NO_REPOSITORY, "TqlRpo0013N"},
    {STATUS_PACKAGE_EXISTS, "TqlRpo0009N"},
    {STATUS_INVALID_PACKAGE_ID, "TqlRpo0020N"},
    {STATUS_PACKAGE_NOT_FOUND, "TqlRpo0010N"},
    {STATUS_DELETE_CANCELED, "TqlRpo0021N"},
    {STATUS_FILE_NOT_FOUND, "TqlRpo0012N"},
    {STATUS_UNREADABLE_PACKAGE, "TqlRpo0015N"},
    {STATUS_INVALID_SIGNATURE, "TqlRpo0011N"},
    {STATUS_NO_PUBLIC_KEY, "TqlRpo0014N"},
    {STATUS_EXTRACTION_FAILED, "TqlRpo0019N"},
    {STATUS_UNSUPPORTED_VERSION, "TqlRpo0037N"},
    {STATUS_UNSUPPORTED_TYPE, "TqlRpo0038N"},
    {STATUS_UNSUPPORTED_OS, "TqlRpo0039N"},
    {STATUS_UNSUPPORTED_EEB_VERSION, "TqlRpo0040N"},
    {8000, "TqlRpo0006N"},
    {STATUS_UNEXPECTED_RESPONSE, "TqlRpo0007N"},
}};

namespace {

constexpr const char* GENERAL_MESSAGE = "TqlRpo0024N";
constexpr int STATUS_WITHOUT_LOG_LINE = 55;

// The message of a status with a text of its own; null for another.
const char* find_status_message(int code) {
    for (const StatusMessage& row : STATUS_MESSAGES)
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
    // A deletion that the user cancels is not an error.
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
