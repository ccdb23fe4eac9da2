#include "platform/admin.h"

#include "tests/unit/platform/system_faults.h"

#include <gtest/gtest.h>

namespace {

class Admin : public ::testing::Test {
  protected:
    void TearDown() override { faults().reset(); }
};

TEST_F(Admin, RootHoldsEveryKindOfRight) {
    faults().effective_user = 0;
    for (const user_permission_type_t kind : {0, 1, USER_PERMISSION_ADMINISTRATOR, 99})
        EXPECT_NE(is_user_admin(kind), 0) << "kind " << kind;
}

TEST_F(Admin, AnotherEffectiveUserHoldsNone) {
    for (const unsigned user : {1U, 1000U, 65534U}) {
        faults().effective_user = user;
        EXPECT_EQ(is_user_admin(USER_PERMISSION_ADMINISTRATOR), 0) << "user " << user;
    }
}

TEST_F(Admin, AsksForTheUserThatRunsTheProgram) {
    EXPECT_NE(is_user_admin(USER_PERMISSION_ADMINISTRATOR), 0) << "the sandbox's user is root";
}

} // namespace
