// How packages are shown: the table of a list, the labelled block of one.

#include "model/QvRepoPackage.h"
#include "model/dunmarel_common.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

#include <boost/format.hpp>

namespace {

constexpr std::size_t BOTH_SIDES_WIDTH = 13; // of "server+client"

struct ColumnWidths {
    std::size_t id = 2;
    std::size_t type = 4;
    std::size_t version = 7;
    std::size_t os = 2;
    std::size_t file_name = 9;
};

void widen(std::size_t& width, const std::string& text) {
    width = std::max(width, text.length());
}

// The type column is measured by the types as the service names them, not as they are shown, and a package
// for both sides starts the measure anew. Kept: other tools cut the table at these columns.
void widen_type(std::size_t& width, const std::string& type) {
    if (type.length() == 2 || type == "maint.qv")
        width = BOTH_SIDES_WIDTH;
    widen(width, type);
}

ColumnWidths measure(const std::vector<QvRepoPackage>& packages) {
    ColumnWidths widths;
    for (const QvRepoPackage& package : packages) {
        widen(widths.id, package.id);
        widen_type(widths.type, package.packageType);
        widen(widths.version, package.version);
        widen(widths.os, package.os);
        widen(widths.file_name, package.packageFileName);
    }
    return widths;
}

boost::format row_format(const ColumnWidths& widths) {
    using boost::io::group;
    boost::format row("%1% %2% %3% %4% %5%");
    int item = 0;
    for (const std::size_t width : {widths.id, widths.type, widths.version, widths.os, widths.file_name})
        row.modify_item(++item, group(std::setw(static_cast<int>(width)), std::left));
    return row;
}

void print_field(std::ostream& out, const char* label, const std::string& value) {
    constexpr int VALUE_COLUMN = 30;
    out << std::setw(VALUE_COLUMN) << std::right << label << std::left << value << "\n";
}

} // namespace

std::string QvRepoPackage::formatPackageType() {
    if (packageType.length() <= 2 || packageType == "maint.qv")
        return "server+client";
    if (packageType == "maint.qvclient")
        return "client";
    // The name, not the type: only the name says for which side an EEB was built.
    if (packageName.find("qveeb.client") != std::string::npos)
        return "client eeb";
    if (packageName.find("qveeb.server") != std::string::npos)
        return "server eeb";
    return packageType.substr(2);
}

std::string QvRepoPackage::formatDateTime(const std::string& utc) {
    std::string text = utc;
    if (const std::size_t t = text.find('T'); t != std::string::npos)
        text[t] = ' ';
    if (const std::size_t z = text.find('Z'); z != std::string::npos)
        text.erase(z, 1);
    return text.substr(0, text.find('.'));
}

void QvRepoPackage::printPackageDetails(std::ostream& out) {
    print_field(out, "Package ID: ", id);
    print_field(out, "Package File Name: ", packageFileName);
    print_field(out, "Package Type: ", formatPackageType());
    print_field(out, "Operating System: ", os);
    print_field(out, "Release Version: ", version);
    const char* label = "Installables: ";
    for (const std::string& installable : installables) {
        print_field(out, label, installable);
        label = "";
    }
    print_field(out, "Package Size: ", formatSize(size));
    print_field(out, "Created Date/Time (UTC): ", formatDateTime(createdDateTimeUTC));
}

void QvRepoPackage::printPackageList(std::vector<QvRepoPackage> packages, std::ostream& out) {
    if (packages.empty())
        return;
    boost::format row = row_format(measure(packages));
    out << row % "ID" % "Type" % "Version" % "OS" % "File Name" << std::endl;
    const auto rule = boost::io::group(std::setfill('-'), "");
    out << row % rule % rule % rule % rule % rule << std::endl;
    for (QvRepoPackage& package : packages)
        out << row % package.id % package.formatPackageType() % package.version % package.os %
                   package.packageFileName
            << std::endl;
}
