#include "platform/master_config.h"

#include "platform/file_descriptor.h"
#include "platform/paths.h"
#include "tests/unit/platform/product_tree.h"
#include "tests/unit/platform/system_faults.h"

#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t MEBIBYTE = std::size_t{1024} * 1024;

std::vector<std::string> names() {
    std::vector<std::string> all;
    const master_config* config = get_master_config_ptr();
    if (config == nullptr || config->server_names == nullptr)
        return all;
    for (const char* const* name = config->server_names; *name != nullptr; ++name)
        all.emplace_back(*name);
    return all;
}

class MasterConfig : public ProductTree {
  protected:
    void TearDown() override { faults().reset(); }

    int read(const std::string& text) {
        write_product_file(MASTER_CONFIG_FILE, text);
        return QV_read_master_config();
    }

    // Whether this machine is the master when the configuration names `name` first.
    bool is_master(const std::string& name) {
        EXPECT_EQ(read(R"({"servers": [")" + name + R"(", "second.example.com"]})"), 0);
        return lunt_is_master_server("localhost") != 0;
    }
};

using MasterRole = MasterConfig;

// First, while nothing has been read yet.
TEST_F(MasterConfig, HasNoRecordBeforeTheFirstReading) {
    EXPECT_EQ(get_master_config_ptr(), nullptr);
    EXPECT_EQ(lunt_is_master_server("localhost"), 0);
    EXPECT_NE(QV_read_master_config(), 0);
    EXPECT_EQ(get_master_config_ptr(), nullptr) << "a failed reading makes no record";
}

TEST_F(MasterConfig, NamesTheServersInOrder) {
    ASSERT_EQ(read(R"({"version": 3, "servers": ["master.example.com", "other.example.com"], "x": [1]})"), 0);
    EXPECT_EQ(names(), (std::vector<std::string>{"master.example.com", "other.example.com"}));
}

TEST_F(MasterConfig, WithoutNamesHasANullPointerInTheirPlace) {
    for (const char* text : {"{}", R"({"servers": []})", R"({"server": ["a"]})", " {\n} \n\t"}) {
        ASSERT_EQ(read(text), 0) << text;
        ASSERT_NE(get_master_config_ptr(), nullptr) << text;
        EXPECT_EQ(get_master_config_ptr()->server_names, nullptr) << text;
        EXPECT_EQ(lunt_is_master_server("localhost"), 0) << text;
    }
}

TEST_F(MasterConfig, KeepsAnEmptyName) {
    ASSERT_EQ(read(R"({"servers": [""]})"), 0);
    EXPECT_EQ(names(), std::vector<std::string>{""});
    EXPECT_EQ(lunt_is_master_server("localhost"), 0);
    EXPECT_EQ(lunt_is_master_server(""), 0);
}

TEST_F(MasterConfig, RefusesWhatIsNotAConfigurationAndKeepsTheEarlierRecord) {
    ASSERT_EQ(read(R"({"servers": ["kept.example.com"]})"), 0);
    const std::vector<std::string> table = {
        "",
        "   ",
        "{",
        "nonsense",
        "[]",
        R"(["master.example.com"])",
        "null",
        "7",
        R"("text")",
        R"({"servers": "master.example.com"})",
        R"({"servers": {"0": "master.example.com"}})",
        R"({"servers": null})",
        R"({"servers": 1})",
        R"({"servers": ["master.example.com", 2]})",
        R"({"servers": [null]})",
        R"({"servers": [["master.example.com"]]})",
        R"({"servers": ["master.example.com"],})",
        R"({"servers": ["master.example.com"]} x)",
        R"({"servers": ["master.example.com"]}{})",
        R"({'servers': ["master.example.com"]})",
        "{\"servers\": [\"\xff\"]}",
        R"({"servers": ["a\u0000b"]})",
        std::string("{\"servers\": [\"a\"]}\0", 19),
        "\xef\xbb\xbf{\"servers\": [\"a\"]}",
        std::string(100000, '['),
    };
    for (const std::string& text : table) {
        EXPECT_NE(read(text), 0) << text;
        EXPECT_EQ(names(), std::vector<std::string>{"kept.example.com"}) << text;
    }
}

TEST_F(MasterConfig, MayBeOneMebibyteLongAndNoMore) {
    const std::string config = R"({"servers": ["a"]})";
    EXPECT_EQ(read(config + std::string(MEBIBYTE - config.size(), ' ')), 0);
    EXPECT_NE(read(config + std::string(MEBIBYTE - config.size() + 1, ' ')), 0);
}

TEST_F(MasterConfig, MustBeARegularFile) {
    EXPECT_NE(QV_read_master_config(), 0) << "missing";
    std::filesystem::create_directories(MASTER_CONFIG_FILE);
    EXPECT_NE(QV_read_master_config(), 0) << "a directory";
    std::filesystem::remove(MASTER_CONFIG_FILE);
    ASSERT_EQ(mkfifo(MASTER_CONFIG_FILE, 0600), 0);
    EXPECT_NE(QV_read_master_config(), 0) << "a pipe";
    std::filesystem::remove(MASTER_CONFIG_FILE);
    ASSERT_EQ(symlink("/dev/zero", MASTER_CONFIG_FILE), 0);
    EXPECT_NE(QV_read_master_config(), 0) << "a device";
}

TEST_F(MasterConfig, ThatCannotBeReadIsRefused) {
    faults().fail_next("read", EIO);
    EXPECT_NE(read(R"({"servers": ["a"]})"), 0);
}

TEST_F(MasterConfig, IsReadAfreshEachTime) {
    ASSERT_EQ(read(R"({"servers": ["first.example.com"]})"), 0);
    ASSERT_EQ(read(R"({"servers": ["second.example.com"]})"), 0);
    EXPECT_EQ(names(), std::vector<std::string>{"second.example.com"});
}

// The sandbox's host is called master.example.com; /etc/hosts gives 127.0.0.1 further names.

TEST_F(MasterRole, IsHeldByTheHostOfThatNameWithoutAskingAResolver) {
    faults().fail_always("getaddrinfo", EIO);
    EXPECT_TRUE(is_master("master.example.com"));
    EXPECT_TRUE(is_master("MASTER.Example.COM"));
    EXPECT_EQ(faults().count("getaddrinfo"), 0);
}

TEST_F(MasterRole, IsHeldByTheHostOfThatFullName) {
    // The address is another machine's, so that nothing but the name can decide.
    const TemporaryDirectory directory;
    write_file(directory.path("hosts"), "192.0.2.7 full.example.com short\n");
    ASSERT_EQ(mount(directory.path("hosts").c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(sethostname("short", 5), 0);
    EXPECT_TRUE(is_master("Full.example.com"));
    EXPECT_EQ(faults().count("getaddrinfo"), 1)
        << "the full name decides before the configured name is resolved";
    EXPECT_FALSE(is_master("fuller.example.com"));
    ASSERT_EQ(sethostname("master.example.com", 18), 0);
    ASSERT_EQ(umount2("/etc/hosts", MNT_DETACH), 0);
}

TEST_F(MasterRole, IsHeldByTheHostWithThatAddressOnAnInterface) {
    ifreq request{};
    std::strcpy(request.ifr_name, "lo:9");
    auto* address = reinterpret_cast<sockaddr_in*>(&request.ifr_addr);
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(0xc0000209); // 192.0.2.9
    const FileDescriptor any(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(ioctl(any.get(), SIOCSIFADDR, &request), 0);
    EXPECT_TRUE(is_master("192.0.2.9"));
    EXPECT_TRUE(is_master("::ffff:192.0.2.9"));
    faults().fail_always("getifaddrs", ENOMEM);
    EXPECT_FALSE(is_master("192.0.2.9"));
    EXPECT_TRUE(is_master("master.example.com"));
}

// Debian gives the host's own name 127.0.1.1, which no interface has.
TEST_F(MasterRole, IsHeldByTheHostWithAnyLoopbackAddress) {
    faults().fail_always("getifaddrs", ENOMEM);
    for (const char* name : {"127.0.0.1", "127.0.0.2", "127.0.1.1", "127.255.255.255", "::1",
                             "::ffff:127.0.1.1", "localhost", "alias.example.com"})
        EXPECT_TRUE(is_master(name)) << name;
}

TEST_F(MasterRole, IsNotHeldByAnotherHost) {
    for (const char* name : {"other.example.com", "192.0.2.1", "2001:db8::1", "128.0.0.1", "126.255.255.255",
                             "::2", "::", "::127.0.0.1", "::ffff:192.0.2.1", "master.example.co",
                             "master.example.comm", "no such name", "-"})
        EXPECT_FALSE(is_master(name)) << name;
}

TEST_F(MasterRole, IsNotHeldWhereNothingCanBeResolved) {
    faults().fail_always("getaddrinfo", EIO);
    EXPECT_FALSE(is_master("alias.example.com"));
}

TEST_F(MasterRole, IsStillHeldByAddressWhereTheHostHasNoName) {
    faults().fail_always("gethostname", ENAMETOOLONG);
    EXPECT_TRUE(is_master("127.0.0.1"));
    EXPECT_FALSE(is_master("other.example.com"));
}

TEST_F(MasterRole, BelongsToTheFirstServerOnly) {
    ASSERT_EQ(read(R"({"servers": ["other.example.com", "master.example.com"]})"), 0);
    EXPECT_EQ(lunt_is_master_server("localhost"), 0);
}

TEST_F(MasterRole, OfAnotherHostIsAMatterOfItsNameAlone) {
    ASSERT_EQ(read(R"({"servers": ["far.example.com", "second.example.com"]})"), 0);
    EXPECT_NE(lunt_is_master_server("far.example.com"), 0);
    EXPECT_NE(lunt_is_master_server("FAR.EXAMPLE.com"), 0);
    for (const char* host : {"second.example.com", "far", "127.0.0.1", "master.example.com", ""})
        EXPECT_EQ(lunt_is_master_server(host), 0) << host;
    EXPECT_EQ(lunt_is_master_server(nullptr), 0);
    EXPECT_EQ(faults().count("getaddrinfo"), 0);
}

} // namespace
