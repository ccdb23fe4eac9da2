#include "cli/startup.h"
#include "platform/paths.h"
#include "tests/support/command_world.h"

#include <filesystem>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Startup : public CommandWorld {
  protected:
    static void free_space_is(float percent, unsigned long megabytes) {
        seam().getFreeSpace = [=](const char*, float* percentFree, unsigned long* megabytesFree) {
            EXPECT_EQ(*percentFree, 0.0F);
            EXPECT_EQ(*megabytesFree, 0U);
            *percentFree = percent;
            *megabytesFree = megabytes;
            return 0;
        };
    }

    std::string master_ = "before";
};

TEST_F(Startup, NamesTheMasterServerAndMakesItsChecksInOrder) {
    EXPECT_EQ(initialize(master_), 0);
    EXPECT_EQ(master_, "master.example.com");
    EXPECT_THAT(seam().calls,
                ElementsAre("is_user_admin(2)", "QV_read_master_config()", "lunt_is_master_server(localhost)",
                            "getFreeSpace(/usr/ormex/var/global/repo)"));
    EXPECT_THAT(
        log_.records(),
        ElementsAre(
            LogRecord{
                4, "initialize",
                "The volume hosting [/usr/ormex/var/global/repo] has [5000] MB space available, [50.000000] percent of the disk."},
            LogRecord{4, "initialize", "Initialized qvrepo on master server master.example.com."}));
}

TEST_F(Startup, RefusesAnyoneButAnAdministratorBeforeAnythingElse) {
    seam().is_user_admin = [](user_permission_type_t) { return 0; };
    EXPECT_EQ(initialize(master_), 132);
    EXPECT_THAT(seam().calls, ElementsAre("is_user_admin(2)"));
    EXPECT_EQ(master_, "before");
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(Startup, FailsOnAnUnreadableConfiguration) {
    seam().QV_read_master_config = [] { return 5; };
    EXPECT_EQ(initialize(master_), 110);
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(Startup, FailsWithoutAConfigurationRecord) {
    set_master_config(nullptr);
    EXPECT_EQ(initialize(master_), 110);
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(Startup, FailsWithoutANameOfTheMasterServer) {
    const char* const none[] = {nullptr};
    const char* const empty[] = {"", "other.example.com", nullptr};
    const master_config configs[] = {{nullptr}, {none}, {empty}};
    seam().lunt_is_master_server = [](const char*) { return 0; };
    for (const master_config& config : configs) {
        set_master_config(&config);
        EXPECT_EQ(initialize(master_), 111) << "and not 153, which would come later";
    }
    EXPECT_EQ(master_, "before");
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(Startup, FailsOnAnotherMachineAndKeepsTheName) {
    seam().lunt_is_master_server = [](const char*) { return 0; };
    EXPECT_EQ(initialize(master_), 153);
    EXPECT_EQ(master_, "master.example.com");
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(Startup, PassesWithExactlyOnePercentFree) {
    free_space_is(1.0F, 12);
    EXPECT_EQ(initialize(master_), 0);
}

TEST_F(Startup, FailsWithLessThanOnePercentFreeAfterTellingTheSpace) {
    free_space_is(0.99F, 12);
    EXPECT_EQ(initialize(master_), 7263);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(
            LogRecord{
                4, "initialize",
                "The volume hosting [/usr/ormex/var/global/repo] has [12] MB space available, [0.990000] percent of the disk."},
            LogRecord{16, "initialize",
                      "A minimum of one percent of the disk must be free to manage the repo."}));
}

TEST_F(Startup, GoesOnSilentlyWhenTheFreeSpaceCannotBeQueried) {
    seam().getFreeSpace = [](const char*, float*, unsigned long*) { return 11; };
    EXPECT_EQ(initialize(master_), 0);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(LogRecord{4, "initialize", "Initialized qvrepo on master server master.example.com."}));
}

TEST_F(Startup, OpensTheLogOnlyWhereItsDirectoryExists) {
    const std::filesystem::path directory = std::string(LOG_DIRECTORY) + "/qvrepo";
    ASSERT_FALSE(std::filesystem::exists(directory));
    EXPECT_EQ(initialize(master_), 0);
    EXPECT_EQ(seam().calls.at(1), "QV_read_master_config()");

    std::filesystem::create_directories(directory);
    seam().calls.clear();
    seam().open_debug_log = [](const char*, const char*, const char*, int, int* status) {
        EXPECT_EQ(*status, 0);
    };
    EXPECT_EQ(initialize(master_), 0);
    EXPECT_EQ(seam().calls.at(1), "open_debug_log(/usr/ormex/quorvelle/logs, qvrepo, qvrepo, 438)")
        << "438 is 0666";
    std::filesystem::remove_all("/usr/ormex/quorvelle");
}

TEST_F(Startup, GoesOnWhenTheLogCannotBeOpened) {
    std::filesystem::create_directories(std::string(LOG_DIRECTORY) + "/qvrepo");
    seam().open_debug_log = [](const char*, const char*, const char*, int, int* status) { *status = 13; };
    EXPECT_EQ(initialize(master_), 0);
    std::filesystem::remove_all("/usr/ormex/quorvelle");
}

} // namespace
