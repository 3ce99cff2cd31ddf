// The command families of `pelorus`, each registered on the application.
#pragma once

#include <CLI/CLI.hpp>

namespace pelorus_cli {

// Adds every command to `app`.
void AddCommands(CLI::App& app);

}  // namespace pelorus_cli
