#include "cli/status.h"

#include "cli/message_buffers.h"
#include "platform/debug_log.h"
#include "platform/message_catalog.h"

#include <ostream>

const std::array<status_text, 29> STATUS_TEXTS = {{
    {20, "TqlRpo0008N", "invalid command parameter"},
    {104, "TqlRpo0022N", "Package path is not valid."},
    {110, "TqlRpo0003N", "failed to read master config."},
    {111, "TqlRpo0004N", "no master server found."},
    {117, "TqlRpo0006N", "authorization failed."},
    {118, "TqlRpo0006N", "authorization failed."},
    {132, "TqlRpo0002N", "must be administrator."},
    {153, "TqlRpo0005N", "the operation is only supported on master server."},
    {5761, "TqlRpo0035N", "Failed to initialize Windows Socket library."},
    {5930, "TqlRpo0006N", "authorization failed."},
    {7214, "TqlRpo0018N", "Failed to copy the specified file. Could not copy package to repository."},
    {7215, "TqlRpo0016N", "Input package file verification failed. Failed to stat Dunmarel package."},
    {7216, "TqlRpo0017N", "Unrecognized package name."},
    {7217, "TqlRpo0013N", "Package repository location does not exist."},
    {7218, "TqlRpo0009N", "Package already exists in the repository."},
    {7219, "TqlRpo0020N", "Invalid package ID."},
    {7220, "TqlRpo0010N", "Deployment package is not found in the repository."},
    {7221, "TqlRpo0021N", "Package delete operation was canceled."},
    {7225, "TqlRpo0012N", "A required file or directory was not found. Input file path does not exist."},
    {7235, "TqlRpo0015N", "Input package file verification failed. Could not open package file."},
    {7236, "TqlRpo0011N", "The Dunmarel package signature is invalid."},
    {7237, "TqlRpo0014N",
     "Input package file verification failed. The public key was not found at the expected location."},
    {7252, "TqlRpo0019N", "The attempt to extract a package was unsuccessful."},
    {7264, "TqlRpo0037N", "Package version is not supported."},
    {7265, "TqlRpo0038N", "Package type is not supported."},
    {7266, "TqlRpo0039N", "Package operating system is not supported."},
    {7267, "TqlRpo0040N", "Package EEB version is not supported."},
    {8000, "TqlRpo0006N", "authorization failed."},
    {9103, "TqlRpo0007N", "Unexpected response from the web service."},
}};

namespace {

constexpr int STATUS_WITHOUT_LOG_LINE = 55;

const status_text* find_status_text(int code) {
    for (const status_text& row : STATUS_TEXTS)
        if (row.code == code)
            return &row;
    return nullptr;
}

// Fills `msg` and, for a status with a text of its own, `msg_E`.
void look_up_status(int status) {
    if (const status_text* row = find_status_text(status)) {
        // The texts hold no conversion; the number is there for the one general text alone.
        mxgetmsg(row->id, lc_messages, sizeof msg, msg, "C", sizeof msg_E, msg_E, row->text, status);
        return;
    }
    mxgetmsg("TqlRpo0024N", lc_messages, sizeof msg, msg, nullptr, 0, nullptr,
             "qvrepo operation failed with status [%d].", status);
    msg_E[0] = '\0';
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
