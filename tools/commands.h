// The command groups of the dravelin host program; each adds its subcommands to the app and
// stores the process exit status of the one that ran.
#pragma once

#include <CLI/CLI.hpp>

namespace dvtool {

void AddLineCommands(CLI::App &app, int &exitStatus);    // spy, decode-log
void AddKw1281Commands(CLI::App &app, int &exitStatus);  // kw1281 ...
void AddKwp2000Commands(CLI::App &app, int &exitStatus); // kwp ...
void AddSessionCommands(CLI::App &app, int &exitStatus); // scan, live, record

} // namespace dvtool
