#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <vector>

#include "host/account_lookup.h"
#include "host/config_section.h"

// The users who may be the party of a queue, by the queue's number. A queue that is not named is not limited.
using QueueAccess = std::map<int, std::vector<uid_t>>;

// Reads the key `status_group`, the name or id of the group that may read status.sock; absent: the daemon's own.
void ReadStatusGroup(ConfigSection& section, AccountLookup& accounts, std::optional<gid_t>& group);

// Reads the keys `<party>_users`, arrays of user names or numeric user ids.
void ReadAccess(ConfigSection& section, AccountLookup& accounts, QueueAccess& access, ConfigErrors& errors);
