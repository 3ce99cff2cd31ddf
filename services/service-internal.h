// Helpers shared by the service daemon files; not part of the C surface.
#pragma once

#include <stdint.h>

#include <string>

namespace plr {

// The fixed executable name of a service ("kavix-bridge", ...), or nullptr
// for an ID outside the table. The program answers only name PID files.
const char* DefaultProgramForService(uint32_t service);

// "kavix<n>".
std::string VnetNameOf(uint32_t vnet);

}  // namespace plr
