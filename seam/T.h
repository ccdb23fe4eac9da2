// The seam: every call of the program that touches the machine goes through T.
//
// T holds nothing and is never instantiated. Its members are defined in two units,
// cli/qvrepocmd_include_real.cpp (platform calls) and files/qvrepo_include_real.cpp (repository helpers and
// file calls), each forwarding its arguments unchanged and returning the result unchanged. A build that links
// two other units in their place swaps the platform and the file system; callers never name the targets
// directly.

#ifndef SEAM_T_H
#define SEAM_T_H

#include "platform/admin.h"

#include <iosfwd>
#include <string>
#include <vector>

struct QvRepoPackageItem;
struct stat_array;

class T {
  public:
    T() = delete;

    // Platform calls: platform/admin.h, platform/debug_log.h, platform/master_config.h say what each does.
    static int is_user_admin(user_permission_type_t permission);
    static void open_debug_log(const char* directory, const char* program, const char* logName, int mode,
                               int* status);
    static int lunt_is_master_server(const char* host);
    static int QV_read_master_config();

    // Repository helpers: files/QvRepoHelper.h says what each does.
    static int getFreeSpace(const char* path, float* percentFree, unsigned long* megabytesFree);
    static bool pathExists(const char* path);
    static int deletePackageItems(std::vector<std::string> paths);
    static int copySja(const char* path);
    static int copySja(const char* path, std::string& destination, std::string name);
    static int extractSja(const char* path);
    static int verifySja(const char* path);
    static int readSjaContents(const char* path, std::vector<QvRepoPackageItem>& items);
    static int confirmAction(const std::string& prompt, std::ostream& out, std::istream& in);

    // Archive and file calls: files/extractsja.h, platform/file_ops.h.
    static stat_array* stat_archive(const char* path);
    static int do_extract(const char* archive, const char* destination);
    static int fileCOPY(const char* from, const char* to);
    static int fileDELETE(const char* path);
};

#endif
