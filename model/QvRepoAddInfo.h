// What the web service is told about a package that is about to be added.

#ifndef MODEL_QVREPOADDINFO_H
#define MODEL_QVREPOADDINFO_H

#include "model/QvRepoPackage.h"

#include <string>
#include <vector>

class QvRepoAddInfo {
  public:
    // Reads the contents of the package file `path`, then its name. Throws the int status of whichever fails
    // first; nothing has been changed then.
    explicit QvRepoAddInfo(const char* path);

    // Fills the first five members from the name of the package file `path`. Returns 0, or the status of what
    // the name lacks after logging it; the members then keep their values.
    int getPackageAttributesFromFilePath(const char* path);

    // The body of the request that creates the package's metadata: JSON text on one line. Should the JSON
    // library fail (no memory, text that is not UTF-8), that is logged and the body is empty.
    std::string getJSONPackageDetails();

    std::string packageFileName;
    std::string packageName;
    std::string os;
    std::string version;
    std::string packageType;
    std::vector<QvRepoPackageItem> packageItems;
};

#endif
