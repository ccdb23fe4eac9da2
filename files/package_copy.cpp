// How a package file gets into the repository: copied, or, for an envelope, extracted.

#include "files/QvRepoHelper.h"
#include "platform/debug_log.h"
#include "platform/file_ops.h"
#include "platform/paths.h"
#include "platform/regular_file.h"
#include "platform/space_rule.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <cerrno>
#include <limits>

#include <sys/file.h>
#include <sys/stat.h>

namespace {

constexpr const char* COPY_FUNCTION = "QvRepoHelper::copySja";
constexpr const char* EXTRACT_FUNCTION = "QvRepoHelper::extractSja";

// The whole part of `number`. What no 64-bit number can hold, the total of a volume without a single free
// block among it, counts as the largest one, which no free space is enough for.
template <typename Real>
std::uint64_t truncated(Real number) {
    constexpr auto limit = static_cast<Real>(std::numeric_limits<std::uint64_t>::max());
    if (number < limit)
        return static_cast<std::uint64_t>(number);
    return std::numeric_limits<std::uint64_t>::max();
}

std::uint64_t required_megabytes(float percent_free, unsigned long megabytes_free,
                                 std::uint64_t package_megabytes) {
    const double total = 100.0 / static_cast<double>(percent_free) * static_cast<double>(megabytes_free);
    const std::uint64_t total_megabytes = truncated(total);
    logmsgf(2, COPY_FUNCTION, "Total disk space: [%llu] MB.",
            static_cast<unsigned long long>(total_megabytes));
    logmsgf(2, COPY_FUNCTION, "Free disk space: [%lu] MB.", megabytes_free);
    logmsgf(2, COPY_FUNCTION, "Percent free: [%f].", static_cast<double>(percent_free));
    const float kept_free = static_cast<float>(total_megabytes) * MIN_SHARE_LEFT_FREE;
    const float required = kept_free + static_cast<float>(package_megabytes);
    return truncated(required);
}

// Whether the package may be copied: one and a half per cent of the disk stays free, or the free space is
// unknown.
bool has_space_for(std::uint64_t package_megabytes) {
    float percent_free = 0;
    unsigned long megabytes_free = 0;
    const int error = T::getFreeSpace(REPOSITORY_DIRECTORY, &percent_free, &megabytes_free);
    if (error != 0) {
        logmsgf(16, COPY_FUNCTION, "Attempt to resolve free disk space returned error code [%d].", error);
        return true;
    }
    const std::uint64_t required = required_megabytes(percent_free, megabytes_free, package_megabytes);
    logmsgf(2, COPY_FUNCTION, "Required disk space: [%llu] MB.", static_cast<unsigned long long>(required));
    return required <= megabytes_free;
}

std::string place_in_repository(const char* source, const std::string& prefix) {
    return std::string(REPOSITORY_DIRECTORY) + "/" + prefix + base_name(source);
}

bool repository_exists() {
    if (T::pathExists(REPOSITORY_DIRECTORY))
        return true;
    logmsgf(16, COPY_FUNCTION, "Package repository location does not exist: [%s].", REPOSITORY_DIRECTORY);
    return false;
}

int status_of_copy(int error, const char* source) {
    if (error == 0)
        return 0;
    logmsgf(16, COPY_FUNCTION, "Unable to copy package file [%s] to [%s].", source, REPOSITORY_DIRECTORY);
    return STATUS_COPY_FAILED;
}

int copy_to(const char* source, const std::string& destination) {
    const int result = T::fileCOPY(source, destination.c_str());
    // Logged whatever the result: readers of the log know it as the trace of the attempt.
    logmsgf(4, COPY_FUNCTION, "Copied package file [%s] to [%s].", source, destination.c_str());
    return status_of_copy(result, source);
}

int refuse_extraction(const char* source) {
    logmsgf(16, EXTRACT_FUNCTION, "Failed extracting [%s] to directory [%s]", source, REPOSITORY_DIRECTORY);
    return STATUS_EXTRACTION_FAILED;
}

// Whether another process extracts the temporary copy `path`.
bool is_in_use(const std::string& path) {
    FileDescriptor file;
    struct stat status = {};
    return open_regular_file(path.c_str(), file, status) == 0 && flock(file.get(), LOCK_SH | LOCK_NB) != 0 &&
           errno == EWOULDBLOCK;
}

void delete_temporary(const std::string& path) {
    if (is_in_use(path) || T::fileDELETE(path.c_str()) != 0)
        logmsgf(16, EXTRACT_FUNCTION, "Could not delete temporary package file [%s].", path.c_str());
}

} // namespace

// By value, as the seam passes it on.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int QvRepoHelper::copySja(const char* source, std::string& destination, std::string name) {
    if (!repository_exists())
        return STATUS_NO_REPOSITORY;
    if (const int code = T::verifySja(source); code != 0) {
        logmsgf(16, COPY_FUNCTION,
                "Package verification for input file [%s] failed. Error code returned from verifySja: %d.",
                source, code);
        return code;
    }
    destination = place_in_repository(source, name);
    const std::uint64_t package_megabytes = fileSize(source) >> 20U;
    logmsgf(2, COPY_FUNCTION, "Package size: [%llu] MB.", static_cast<unsigned long long>(package_megabytes));
    const bool has_space = has_space_for(package_megabytes);
    if (sameFile(source, destination)) {
        logmsgf(4, COPY_FUNCTION, "[%s] to [%s] are the same file, no file copy necessary.", source,
                destination.c_str());
        // Whoever put the file there may not have flushed it.
        return status_of_copy(flush_file(destination.c_str()), source);
    }
    if (has_space)
        return copy_to(source, destination);
    logmsg(16, "Not enough disk space to copy the package file.", COPY_FUNCTION);
    return STATUS_COPY_FAILED;
}

int QvRepoHelper::copySja(const char* source) {
    if (!repository_exists())
        return STATUS_NO_REPOSITORY;
    // The other form verifies once more; a plain copy is verified twice.
    if (const int code = T::verifySja(source); code != 0) {
        logmsgf(16, COPY_FUNCTION,
                "Package verification for input file [%s] failed. Error code returned from verifySja: [%d].",
                source, code);
        return code;
    }
    std::string destination;
    return T::copySja(source, destination, "");
}

int QvRepoHelper::extractSja(const char* source) {
    if (is_in_use(place_in_repository(source, "tmp_")))
        return refuse_extraction(source);
    std::string temporary;
    // A copy that others could open is one that they could lock, and nobody could extract it.
    const mode_t mask = umask(077);
    const int code = T::copySja(source, temporary, "tmp_");
    umask(mask);
    if (code != 0) {
        logmsgf(16, EXTRACT_FUNCTION,
                "Failed to copy the input sja file to repository. Error code returned from copySja %d.",
                code);
        // The path is still empty when the copy failed before it was formed; the log shows that as empty
        // brackets.
        logmsgf(4, EXTRACT_FUNCTION, "Removing temporary package file [%s].", temporary.c_str());
        delete_temporary(temporary);
        return code;
    }
    logmsgf(4, EXTRACT_FUNCTION, "Extracting [%s] to [%s].", source, REPOSITORY_DIRECTORY);
    logmsgf(2, EXTRACT_FUNCTION, "Running do_extract [%s] to [%s].", temporary.c_str(), REPOSITORY_DIRECTORY);
    if (T::do_extract(temporary.c_str(), REPOSITORY_DIRECTORY) != 0) {
        logmsgf(4, EXTRACT_FUNCTION, "Successfully extracted [%s] to [%s].", source, REPOSITORY_DIRECTORY);
        return 0;
    }
    const int status = refuse_extraction(source);
    delete_temporary(temporary);
    return status;
}
