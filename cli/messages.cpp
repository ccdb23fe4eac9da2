#include "cli/messages.h"

#include "cli/message_buffers.h"
#include "platform/message_catalog.h"

#include <cstring>

const std::array<Message, 38> MESSAGES = {{
    {"TqlRpo0002N", "must be administrator."},
    {"TqlRpo0003N", "failed to read master config."},
    {"TqlRpo0004N", "no master server found."},
    {"TqlRpo0005N", "the operation is only supported on master server."},
    {"TqlRpo0006N", "authorization failed."},
    {"TqlRpo0007N", "Unexpected response from the web service."},
    {"TqlRpo0008N", "invalid command parameter"},
    {"TqlRpo0009N", "Package already exists in the repository."},
    {"TqlRpo0010N", "Deployment package is not found in the repository."},
    {"TqlRpo0011N", "The Dunmarel package signature is invalid."},
    {"TqlRpo0012N", "A required file or directory was not found. Input file path does not exist."},
    {"TqlRpo0013N", "Package repository location does not exist."},
    {"TqlRpo0014N",
     "Input package file verification failed. The public key was not found at the expected location."},
    {"TqlRpo0015N", "Input package file verification failed. Could not open package file."},
    {"TqlRpo0016N", "Input package file verification failed. Failed to stat Dunmarel package."},
    {"TqlRpo0017N", "Unrecognized package name."},
    {"TqlRpo0018N", "Failed to copy the specified file. Could not copy package to repository."},
    {"TqlRpo0019N", "The attempt to extract a package was unsuccessful."},
    {"TqlRpo0020N", "Invalid package ID."},
    {"TqlRpo0021N", "Package delete operation was canceled."},
    {"TqlRpo0022N", "Package path is not valid."},
    {"TqlRpo0024N", "qvrepo operation failed with status [%d]."},
    {"TqlRpo0025N", "Adding package to the repository. This may take a few minutes..."},
    {"TqlRpo0026N", "Successfully added deployment package ID: %s to the repository."},
    {"TqlRpo0027N", "Package ID %s has been deleted from the repository."},
    {"TqlRpo0028N", "0 deployment packages in the repository."},
    {"TqlRpo0029N", "\nUsage: Quorvelle package repository utility\n\n"},
    {"TqlRpo0030N", "qvrepo -a | -add <package_path>\n"},
    {"TqlRpo0031N", "qvrepo -d | -delete <package_identifier>\n"},
    {"TqlRpo0032N", "qvrepo -l | -list\n"},
    {"TqlRpo0033N", "qvrepo -p | -pkgDetails <package_identifier>\n"},
    {"TqlRpo0034N", "qvrepo -h | -help\n"},
    {"TqlRpo0035N", "Failed to initialize Windows Socket library."},
    {"TqlRpo0036N", "qvrepo: delete package ID "},
    {"TqlRpo0037N", "Package version is not supported."},
    {"TqlRpo0038N", "Package type is not supported."},
    {"TqlRpo0039N", "Package operating system is not supported."},
    {"TqlRpo0040N", "Package EEB version is not supported."},
}};

const char* english_text(const char* id) {
    for (const Message& row : MESSAGES)
        if (std::strcmp(row.id, id) == 0)
            return row.text;
    return id;
}

// A text without a conversion ignores the argument that it gets all the same: without any, the compiler warns
// of a format that is not a literal.

const char* user_text(const char* id) {
    mxgetmsg(id, lc_messages, sizeof outline, outline, nullptr, 0, nullptr, english_text(id), "");
    return outline;
}

const char* user_and_english_text(const char* id, const char* argument) {
    mxgetmsg(id, lc_messages, sizeof outline, outline, "C", sizeof msg_E, msg_E, english_text(id), argument);
    return outline;
}
