#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/access_section.h"
#include "nat/host_config.h"

// The host's settings, owning what a HostConfig points to.
struct HostSettings {
  MediaConfig media;
  NatConfig nat;
  QueueAccess access;                // not the agent's: the host hands it to the queues
  std::optional<gid_t> statusGroup;  // of status.sock
};

// What holds without a configuration file: the usual ports, no public address, no STUN, no exclusions.
HostSettings DefaultSettings();

// The bits of UpdateNatMain that tell the agent what differs; 0 when nothing does.
u16 ChangesBetween(const HostSettings& before, const HostSettings& after);

struct ConfigResult {
  std::optional<HostSettings> settings;  // present exactly when there are no errors
  std::string text;                      // a text that gives these settings; of a file alone, what it contained
  std::vector<std::string> errors;       // "FILE:LINE: KEY: REASON"
  std::vector<ConfigValue> values;       // what is in force, in the order of the manual page
  std::vector<std::string> files;        // those read
  bool isPassing = false;                // an error may pass by itself: a user could not be looked up
};

// How long the names of users may take, all of them, while nobody waits for signs of life. A start reads two
// configurations, the last good one too, and a service manager gives it 90 s.
inline constexpr std::chrono::milliseconds kNamesWithin{30'000};

// Checks a configuration in full. `file` names it in the errors.
ConfigResult ParseConfig(std::string_view text, const std::string& file,
                         std::chrono::milliseconds namesWithin = kNamesWithin);

// Reads a file and checks it. Only a regular file of at most 1 MiB is read.
ConfigResult ReadConfig(const std::string& file);

// Reads a file and the drop-ins conf.d/*.toml beside it, lays them over it in the order of their names, and checks what
// comes of it.
ConfigResult ReadConfigWithDropIns(const std::string& file, std::chrono::milliseconds namesWithin = kNamesWithin);
