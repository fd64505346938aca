#pragma once

#include "host/config_section.h"
#include "nat/host_config.h"

// Reads the key `exclusions` of [nat]: an array of "ADDRESS/BITS" and of tables with an ip and a mask.
void ReadExclusions(ConfigSection& section, NatConfig& nat, ConfigErrors& errors);
