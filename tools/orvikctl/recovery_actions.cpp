#include "recovery_actions.h"

namespace {

std::string Words(SC_ACTION_TYPE action) {
    switch (action) {
        case SC_ACTION_NONE:
            return "none";
        case SC_ACTION_RESTART:
            return "restart";
        case SC_ACTION_REBOOT:
            return "reboot";
        case SC_ACTION_RUN_COMMAND:
            return "run a command";
        default:
            return "action " + std::to_string(action);
    }
}

}  // namespace

std::vector<RecoveryAction> RecoveryActionsOf(const SERVICE_FAILURE_ACTIONSW& config) {
    std::vector<RecoveryAction> actions;
    for (DWORD i = 0; i < config.cActions; ++i)
        actions.push_back({Words(config.lpsaActions[i].Type), config.lpsaActions[i].Delay});
    return actions;
}

std::string Words(const std::vector<RecoveryAction>& actions) {
    if (actions.empty())
        return "none";
    std::string words;
    for (const RecoveryAction& action : actions)
        words += (words.empty() ? "" : ", ") + action.words + " after " +
                 std::to_string(action.delay) + " ms";
    return words;
}

Json JsonOf(const std::vector<RecoveryAction>& actions) {
    Json json = Json::array();
    for (const RecoveryAction& action : actions)
        json.push_back({{"action", action.words}, {"delay_ms", action.delay}});
    return json;
}
