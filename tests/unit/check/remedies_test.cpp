#include "check/remedies.h"

#include <gtest/gtest.h>

namespace {

TEST(Tightening, GivesAFileToRootAlone) {
    struct {
        uid_t owner;
        mode_t mode;
        const char* command;
    } const cases[] = {{0, 0644, ""},
                       {0, 0755, ""},
                       {0, 0664, "chmod go-w -- '/a b'"},
                       {0, 0602, "chmod go-w -- '/a b'"},
                       {7, 0600, "chown root:root -- '/a b'"},
                       {7, 0622, "chown root:root -- '/a b' && chmod go-w -- '/a b'"}};
    for (const auto& each : cases) {
        struct stat status = {};
        status.st_uid = each.owner;
        status.st_mode = S_IFREG | each.mode;
        EXPECT_EQ(tightening("/a b", status), each.command) << each.owner << " " << each.mode;
    }
}

TEST(Unregistration, AddressesThePackageWhateverItsIdHolds) {
    const std::string head = "curl -sS --fail --globoff --cacert /usr/ormex/quorvelle/tls/ca.pem --cert "
                             "/usr/ormex/quorvelle/tls/host.pem --key /usr/ormex/quorvelle/tls/host.key -H "
                             "'Accept: application/vnd.quorvelle+json;version=6.0' -X DELETE ";
    EXPECT_EQ(unregistration("42", "m.example.com"),
              head + "https://m.example.com:1556/quorvelle/deployment/packages/42");
    EXPECT_EQ(unregistration("../a b", "::1"),
              head + "'https://[::1]:1556/quorvelle/deployment/packages/%2E%2E%2F%61%20%62'");
}

} // namespace
