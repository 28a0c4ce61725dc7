// The contract: what hosts may count on when the daemon, its socket or the system bus fail them.

#include "tables.h"

#define DROP "authenticatedChanged(); discredit()"
#define NO_SOCKET(name) "critical Cannot connect to \"unix:path=/var/run/authd/authd.socket\" \"" name "\" …"
#define SETTINGS "shows user 0, 5 rows, switching"
#define USER "shows user 1000, 5 rows, switching"
#define USER_NOTIFIED "shows user 1000, 5 rows, switching, notifications"
#define TOKEN_NOTIFIED "shows user 1000, 5 rows, switching, notifications, token"

const std::vector<Promise> promises = {
    // There are no such cases.
    {"signal", "of a reply", "*", "-", "signals are not replied to", nullptr, Impossible},
    {"bus", "of the peer", "*", "-", "what travels on the system bus has no peer: see \"system bus killed\"", nullptr,
     Impossible},
    {"blocking|construction", "name handed over, old one stays", "*", "-",
     "it waits for the old daemon, which answers it", nullptr, Impossible},
    // A blocking call has returned when the host acts; what comes later is unheard.
    {"blocking", "late reply|daemon lost|name handed over|system bus killed", "delete", "returned, no more",
     "{part}; deleted"},
    {"blocking", "late reply|daemon lost|name handed over|system bus killed", "quit|exit", "as far as it got",
     "{part}"},
    {"blocking|construction", "while it is called", "delete|quit|exit", "-",
     "it blocks, and nothing is to come when it returns", nullptr, Impossible},
    {"GetState", "daemon frozen", "delete|quit|exit", "-",
     "the constructor, which calls it, waits: see new AuthDevlockClient", nullptr, Impossible},
    {"GetOption", "peer closed before", "*", "-", "its connection is as new: see new AuthSettingsClient", nullptr,
     Impossible},
    {"UnlockIfNeeded|SetState|SetState at start|on AuthenticationFailed|on AuthDataChanged|on ChangeAuthDataFailed",
     "missing arguments", "*", "-", "it has no arguments that could be missing", nullptr, Impossible},
    {"RequestChallenge|GetUserOption|construction", "ordered", "*", "-", "no signal goes with the reply", nullptr,
     Impossible},
    {"GetOption", "ordered", "*", "-", "what is announced while a settings client is made is not heard", nullptr,
     Impossible},

    // Without a bus nothing is made.
    {"construction|GetOption|GetState|SetState at start", "system bus killed before", "*", "status 1",
     "critical Cannot connect to \"vantora.AuthService\" …", "", 1},

    // Whatever happens, a client may be deleted and a process may end: what is under way ends unheard then.
    {"*", "peer closed after", "delete", "heard", "{all}; deleted"},
    {"*", "peer closed after", "quit|exit", "heard", "{all}"},
    {"*", "*", "delete", "unheard", "{begins}; deleted"},
    {"*", "*", "exit", "unheard", "{begins}"},
    {"*", "*", "quit", "as far as it got", "{part}"},

    // The signals of a daemon that another has replaced are not heard any more; its answers are.
    // An error, and a reply of another type, say nothing of how the request stands: that is for the daemon's signals to
    // tell, and progress stays. Further arguments of a reply are not looked at. A request fails when the daemon goes.
    {"Authenticate|ChangeAuthData", "name handed over, old one stays", "*", "still asking",
     "progressChanged() . is asking"},
    {"Authenticate", "extra arguments", "*", "still asking", "progressChanged() . is asking"},
    {"Authenticate", "answered", "*", "token",
     "progressChanged(); authenticatedChanged(token); progressChanged() . is authenticated"},
    {"Authenticate", "failing", "*", "still asking",
     "progressChanged(); warning callAuthenticateFinished failed: %text . is asking"},
    {"Authenticate", "late reply", "*", "token after all",
     "progressChanged(); warning callAuthenticateFinished failed: %text; ~; authenticatedChanged(token); "
     "progressChanged()"
     " . is authenticated"},
    {"Authenticate", "daemon lost", "*", "dropped",
     "progressChanged(); warning callAuthenticateFinished failed: %text | progressChanged(); " DROP " . is idle"},

    {"ChangeAuthData", "extra arguments", "*", "still asking", "progressChanged() . is asking"},
    {"ChangeAuthData", "answered", "*", "changed", "progressChanged(); progressChanged(); authDataChanged() . is idle"},
    {"ChangeAuthData", "failing", "*", "still asking",
     "progressChanged(); warning callChangeAuthDataFinished failed: %text . is asking"},
    {"ChangeAuthData", "late reply", "*", "changed after all",
     "progressChanged(); warning callChangeAuthDataFinished failed: %text; ~; progressChanged(); authDataChanged() . "
     "is idle"},
    {"ChangeAuthData", "daemon lost", "*", "dropped",
     "progressChanged(); warning callChangeAuthDataFinished failed: %text | progressChanged(); " DROP " . is idle"},

    // Any reply that is no error is a good one, and the daemon's signal tells the outcome; an error is a refusal, once.
    {"UnlockIfNeeded", "other type|extra arguments|name handed over, old one stays", "*", "daemon to tell",
     " . is idle"},
    {"UnlockIfNeeded", "answered", "*", "unlocked", "unlockIfNeededFinished(true) . is idle"},
    {"UnlockIfNeeded", "failing", "*", "false once", "unlockIfNeededFinished(false) . is idle"},
    {"UnlockIfNeeded", "late reply", "*", "false, then told",
     "unlockIfNeededFinished(false); ~; unlockIfNeededFinished(true) . is idle"},
    {"UnlockIfNeeded", "daemon lost", "*", "false once", "unlockIfNeededFinished(false) | " DROP " . is idle"},

    // A failed call returns false, and the token stays until the device is locked or the daemon goes.
    {"SetDevlockState", "extra arguments|system bus killed|system bus killed before", "*", "true",
     "returned true . is authenticated"},
    {"SetDevlockState", "answered", "*", "locked", "returned true; " DROP " . is idle"},
    {"SetDevlockState", "failing", "*", "false", "warning setLocked failed: %text; returned false . is authenticated"},
    {"SetDevlockState", "late reply", "*", "locked after all",
     "warning setLocked failed: %text; returned false; ~; " DROP " . is idle"},
    {"SetDevlockState", "daemon lost", "*", "false, dropped",
     "warning setLocked failed: %text; returned false; " DROP " . is idle"},

    // Without a challenge the request is sent all the same, and the daemon turns it down; so it does with a wrong one.
    {"RequestChallenge", "extra arguments", "*", "taken", "progressChanged(); progressChanged(); " DROP " . is idle"},
    {"RequestChallenge", "answered", "*", "token",
     "progressChanged(); authenticatedChanged(token); progressChanged() . is authenticated"},
    {"RequestChallenge", "peer closed before", "*", "still asking",
     "warning request failed: %text; progressChanged(); warning callAuthenticateFinished failed: %text . is asking"},
    {"RequestChallenge", "peer closed during|name handed over", "*", "still asking",
     "warning request failed: %text; progressChanged(); warning callAuthenticateFinished failed: %text . is asking",
     "RequestChallenge"},
    {"RequestChallenge", "failing|late reply", "*", "turned down",
     "warning request failed: %text; progressChanged(); progressChanged(); " DROP " . is idle"},
    {"RequestChallenge", "daemon lost", "*", "dropped",
     "warning request failed: %text; progressChanged(); warning callAuthenticateFinished failed: %text"
     " | progressChanged(); " DROP " . is idle",
     "RequestChallenge"},

    // The callback is called once, with an invalid value when the call has failed.
    {"FactorMethod", "extra arguments", "*", "value", "callback 5 . is idle"},
    {"FactorMethod", "reply before signal", "*", "value, then signal",
     "callback true; factorSignal(code, {}) . is idle"},
    {"FactorMethod", "reply after signal", "*", "signal, then value",
     "factorSignal(code, {}); callback true . is idle"},
    {"FactorMethod", "answered", "*", "value", "callback true | factorSignal(code, {}) . is idle"},
    {"FactorMethod", "failing", "*", "invalid once", "warning reply isError: %text; callback invalid . is idle"},
    {"FactorMethod", "late reply", "*", "invalid once",
     "warning reply isError: %text; callback invalid; ~; factorSignal(code, {}) . is idle"},
    {"FactorMethod", "daemon lost", "*", "invalid once",
     "warning reply isError: %text; callback invalid | " DROP " . is idle"},

    {"FactorMethod waiting", "extra arguments", "*", "value", "returned 5 . is idle"},
    {"FactorMethod waiting", "answered", "*", "value", "returned true; factorSignal(code, {}) . is idle"},
    {"FactorMethod waiting", "failing", "*", "invalid",
     "warning factorMethodWait failed: %text; returned invalid . is idle"},
    {"FactorMethod waiting", "late reply", "*", "invalid",
     "warning factorMethodWait failed: %text; returned invalid; ~; factorSignal(code, {}) . is idle"},
    {"FactorMethod waiting", "daemon lost", "*", "invalid, dropped",
     "warning factorMethodWait failed: %text; returned invalid; " DROP " . is idle"},

    // A settings client whose daemon can be reached comes up in any case; without the options it has nothing to show.
    {"GetOption", "extra arguments", "*", "options", "made . shows user 0, 1 rows", "3 GetOption s; GetState"},
    {"GetOption", "answered", "*", "options", "made . " SETTINGS},
    {"GetOption", "peer closed during|name handed over", "*", "nothing to show",
     "warning getOption failed: %text; warning getOption failed: %text; made . shows user 0, 0 rows",
     "GetOption s; GetState"},
    {"GetOption", "failing|late reply", "*", "nothing to show",
     "warning getOption failed: %text; warning getOption failed: %text; made . shows user 0, 0 rows",
     "2 GetOption s; GetState"},
    {"GetOption", "daemon lost", "*", "nothing to show, dropped",
     "warning getOption failed: %text; warning getOption failed: %text; made; " DROP " . shows user 0, 0 rows",
     "GetOption s; GetState"},

    {"GetUserOption", "extra arguments", "*", "value", "returned today . " SETTINGS},
    {"GetUserOption", "answered", "*", "value", "returned 2026-11-20 08:15 . " SETTINGS},
    {"GetUserOption", "failing|late reply", "*", "neutral",
     "warning getUserOption failed: %text; returned nothing . " SETTINGS},
    {"GetUserOption", "daemon lost", "*", "neutral, dropped",
     "warning getUserOption failed: %text; returned nothing; " DROP " . " SETTINGS},

    // The user is another one at once, in any case; what cannot be read stays. What is announced meanwhile is heard
    // later.
    {"GetUserOptions", "extra arguments", "*", "options",
     "uidChanged(); showNotificationsChanged(); returned . " USER_NOTIFIED},
    {"GetUserOptions", "ordered", "*", "options, then news",
     "uidChanged(); userWarningChanged(); showNotificationsChanged(); returned; isMultiFactorableChanged() "
     ". " USER_NOTIFIED},
    {"GetUserOptions", "answered", "*", "options",
     "uidChanged(); userWarningChanged(); showNotificationsChanged(); returned . " USER_NOTIFIED},
    {"GetUserOptions", "peer closed before", "*", "as it was",
     "uidChanged(); warning getUserOptions failed: %text; warning getUserOption failed: %text; returned . " USER},
    {"GetUserOptions", "peer closed during|name handed over", "*", "as it was",
     "uidChanged(); warning getUserOptions failed: %text; warning getUserOption failed: %text; returned . " USER,
     "GetUserOptions uas"},
    {"GetUserOptions", "failing|late reply", "*", "as it was",
     "uidChanged(); warning getUserOptions failed: %text; showNotificationsChanged(); returned . " USER_NOTIFIED},
    {"GetUserOptions", "daemon lost", "*", "as it was, dropped",
     "uidChanged(); warning getUserOptions failed: %text; warning getUserOption failed: %text; returned; " DROP
     " . " USER,
     "GetUserOptions uas"},

    // A reply of another type is converted to a bool, and none is false. A failed write changes nothing.
    {"SetUserOption", "missing arguments", "*", "false", "returned . " TOKEN_NOTIFIED},
    {"SetUserOption", "other type|extra arguments|answered", "*", "changed",
     "showNotificationsChanged(); returned . " USER ", token"},
    {"SetUserOption", "failing", "*", "false", "warning setUserOption failed: %text; returned . " TOKEN_NOTIFIED},
    {"SetUserOption", "late reply", "*", "announced after all",
     "warning setUserOption failed: %text; returned; ~; showNotificationsChanged() . " USER ", token"},
    {"SetUserOption", "daemon lost", "*", "false, dropped",
     "warning setUserOption failed: %text; returned; " DROP " . " USER_NOTIFIED},

    // What is not told is Undefined. Of an answer and an announcement the later one holds.
    {"GetState", "reply before signal", "*", "state, then news", "stateChanged(); stateChanged() . is SecurityUi"},
    {"GetState", "reply after signal", "*", "news, then state", "stateChanged(); stateChanged() . is Unlocked"},
    {"GetState", "failing|late reply|daemon lost|system bus killed", "*", "Undefined",
     "warning failed: %text . is Undefined"},
    {"GetState", "extra arguments|answered", "*", "state", "stateChanged() . is Unlocked"},

    // Nothing is reported; the state is what the daemon announces, and Undefined without the daemon or the bus.
    {"SetState", "failing|extra arguments", "*", "not told", "returned . is Unlocked"},
    {"SetState", "system bus killed before", "*", "Undefined", "returned; stateChanged() . is Undefined", ""},
    {"SetState", "system bus killed|daemon lost", "*", "Undefined", "returned; stateChanged() . is Undefined"},
    {"SetState", "answered", "*", "announced", "returned; stateChanged() . is SecurityUi"},
    {"SetState", "late reply", "*", "announced after all", "returned; ~; stateChanged() . is SecurityUi"},

    // An answer that has come before it is waited for may be overtaken by an announcement, and is old news then.
    {"SetState at start", "failing|extra arguments", "*", "not told", "returned; stateChanged() . is Unlocked"},
    {"SetState at start", "system bus killed|daemon lost", "*", "Undefined",
     "returned; stateChanged(); stateChanged() . is Undefined or returned . is Undefined"},
    {"SetState at start", "answered", "*", "announced",
     "returned; stateChanged(); stateChanged() . is SecurityUi or returned; stateChanged() . is SecurityUi"},
    {"SetState at start", "late reply", "*", "announced after all",
     "returned; stateChanged(); ~; stateChanged() . is SecurityUi"},

    // A process that cannot reach the daemon, or loses it meanwhile, is ended with status 1. Introspection data is not
    // needed.
    {"new AuthClient", "peer closed before|peer closed during|daemon lost|name handed over", "*", "status 1",
     NO_SOCKET("authd_p2p_client"), "GetState", 1},
    {"new AuthSettingsClient", "peer closed before|peer closed during|daemon lost|name handed over", "*", "status 1",
     NO_SOCKET("authd_p2p_settings_client"), "GetState", 1},
    {"new AuthClient", "*", "*", "works", "made; works . is idle"},
    {"new AuthSettingsClient", "*", "*", "works", "made; works . " SETTINGS},
    {"new AuthDevlockClient", "system bus killed", "*", "status 1",
     "critical Cannot connect to \"vantora.AuthService\" …", "", 1},
    {"new AuthDevlockClient", "daemon killed", "*", "Undefined", "made; warning failed: %text . is Undefined", ""},
    {"new AuthDevlockClient", "daemon restarted", "*", "Undefined or state",
     "made; warning failed: %text . is Undefined or made; stateChanged() . is Unlocked", "GetState?"},
    {"new AuthDevlockClient", "*", "*", "state", "made; stateChanged() . is Unlocked"},

    // A signal that does not carry what the daemon's would is not heard. Subscriptions follow the daemon to its next
    // instance. What comes on the socket and what comes on the bus may overtake one another.
    {"on StateChanged", "daemon killed", "*", "heard, then Undefined", "{heard}; stateChanged() . is Undefined"},
    {"on StateChanged", "daemon restarted", "*", "Undefined, then heard", "stateChanged(); {heard} . {after}"},
    {"on StateChanged", "system bus killed|system bus killed before", "*", "Undefined",
     "stateChanged() . is Undefined"},
    // A token that comes after the news of the daemon's end is kept.
    {"on Authenticated", "daemon killed", "*", "heard, then dropped",
     "{heard}; " DROP " . is idle or " DROP "; {heard} . {after}"},
    {"signal", "daemon killed", "*", "heard, then dropped", "{heard} | " DROP " . {after}"},
    {"signal", "daemon restarted", "*", "dropped, then heard", DROP "; {heard} . {after}"},
    {"signal", "other type|extra arguments|missing arguments|peer closed before", "*", "not heard", " . {before}"},
    {"signal", "peer closed during|name handed over|answered", "*", "heard", "{heard} . {after}"},
};
