#pragma once

#include "host/config_section.h"
#include "nat/host_config.h"

// Reads the table [stun]. Several servers come into the record's one text, with commas between them.
void ReadStun(ConfigSection& section, NatConfig& nat);
