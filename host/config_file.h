#pragma once

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
  std::string text;                      // what a file contained; empty when it could not be read
  std::vector<std::string> errors;       // "FILE:LINE: KEY: REASON"
};

// Checks a configuration in full. `file` names it in the errors.
ConfigResult ParseConfig(std::string_view text, const std::string& file);

// Reads a file and checks it. Only a regular file of at most 1 MiB is read.
ConfigResult ReadConfig(const std::string& file);
