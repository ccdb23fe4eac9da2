// The record of one deployment package as the master server's web service describes it, and its printing.

#ifndef MODEL_QVREPOPACKAGE_H
#define MODEL_QVREPOPACKAGE_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include <jansson.h>

// One file of a package: its name inside the archive and its size in bytes.
struct QvRepoPackageItem {
    std::string fileName;
    std::uint64_t fileSize = 0;
};

class QvRepoPackage {
  public:
    QvRepoPackage() = default;

    // Builds the record from one package object (borrowed). Throws the int status 9103, after logging why,
    // when the object lacks a member or holds one of the wrong type.
    explicit QvRepoPackage(json_t* package);

    // Builds the record from a whole single-package answer, an object whose "data" is the package object.
    // Throws the int status 9103, after logging why, when the answer is not that.
    explicit QvRepoPackage(const std::string& response);

    // Fills the record from one package object (borrowed). Returns 0, or 9103 after logging why; the item
    // paths that were read before the failure then stay in the record.
    int parseJSONpackageDetails(json_t* package);

    // Appends one record per element of the answer's "data" array. Returns 0 or, after logging why, 9103; the
    // records read before the failure then stay in `packages`.
    static int parseJSONResponsePackageArray(const std::string& response,
                                             std::vector<QvRepoPackage>& packages);

    // Whether the package's file is an envelope of several files: anything but exactly one item whose base
    // name is the package's file name. Logs the verdict.
    bool isBundle();

    // The type as an administrator reads it: "server+client", "client", "server eeb", ...
    std::string formatPackageType();

    // The service's time stamp as an administrator reads it: 2021-03-04T05:06:07.890Z becomes 2021-03-04
    // 05:06:07.
    std::string formatDateTime(const std::string& utc);

    // Writes the labelled block of one package, values from column 31 on.
    void printPackageDetails(std::ostream& out);

    // Writes the table of packages in the given order; nothing at all for an empty vector.
    static void printPackageList(std::vector<QvRepoPackage> packages, std::ostream& out);

    std::string id;
    std::string packageName;
    std::string packageFileName;
    std::string packageType;
    std::string os;
    std::string version;
    std::uint64_t size = 0; // bytes
    std::vector<std::string> packageItemFilePaths;
    std::string createdDateTimeUTC;
    std::vector<std::string> installables;
    std::string lastModifiedDateTimeUTC;
    std::string lastValidatedUTC;

  private:
    // Fills the record like parseJSONpackageDetails, but logs nothing: returns what there is to log, empty on
    // success.
    std::string fill(json_t* package);

    // Fills `installables` from type, version and name. Returns what there is to log: an EEB package whose
    // name has fewer than three parts or more than 128 bytes identifies nothing.
    std::string deriveInstallables();

    struct ListProblem;

    // Appends the record of one element of a list (borrowed), or returns what is wrong with it.
    static ListProblem append(json_t* element, std::vector<QvRepoPackage>& packages);

    // Appends the records of a response in the service's own form, taking it element by element, up to the
    // first that is not a package. Leaves any other response to the parser of whole documents, which names what
    // is wrong: returns false then, with `packages` as before.
    static bool appendInPieces(const std::string& response, std::vector<QvRepoPackage>& packages,
                               ListProblem& problem);

    // The same for a response of whatever form. Returns 0 or, after logging why, 9103.
    static int appendWhole(const std::string& response, std::vector<QvRepoPackage>& packages,
                           ListProblem& problem);

    // Logs the problem and returns the status for it.
    static int refuseList(const ListProblem& problem);
};

#endif
