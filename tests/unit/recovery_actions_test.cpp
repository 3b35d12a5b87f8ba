// The recovery actions that orvikctl status reports. Wine stores none, so they are passed in here.

#include "recovery_actions.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<RecoveryAction> ActionsOf(std::vector<SC_ACTION> actions) {
    SERVICE_FAILURE_ACTIONSW config{};
    config.cActions = static_cast<DWORD>(actions.size());
    config.lpsaActions = actions.data();
    return RecoveryActionsOf(config);
}

TEST(RecoveryActions, AreListedInTheOrderOfTheFailures) {
    const std::vector<RecoveryAction> actions = ActionsOf({{SC_ACTION_RESTART, 1'000},
                                                           {SC_ACTION_REBOOT, 5'000},
                                                           {SC_ACTION_RUN_COMMAND, 30'000},
                                                           {SC_ACTION_NONE, 0}});
    EXPECT_EQ(Words(actions),
              "restart after 1000 ms, reboot after 5000 ms, run a command after 30000 ms, none "
              "after 0 ms");
    EXPECT_EQ(JsonOf(actions), Json::parse(R"([{"action":"restart","delay_ms":1000},
                                               {"action":"reboot","delay_ms":5000},
                                               {"action":"run a command","delay_ms":30000},
                                               {"action":"none","delay_ms":0}])"));
}

TEST(RecoveryActions, NoActions) {
    EXPECT_EQ(Words(ActionsOf({})), "none");
    EXPECT_EQ(JsonOf(ActionsOf({})), Json::array());
}

}  // namespace
