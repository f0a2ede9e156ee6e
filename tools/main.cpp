// dravelin: the host program of the Dravelin library. Talks to VW-group control units through a
// KKL cable (or the library's built-in simulator, or an emulated ECU on a "vecu:" port).
#include <iostream>

#include "commands.h"
#include "common.h"

namespace {

int Run(int argc, char **argv) {
    CLI::App app{"dravelin: diagnostics of VW-group control units over a K-line (KW1281, "
                 "KWP2000)"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "dravelin 0.1.0");
    int exitStatus = 0;
    dvtool::AddSessionCommands(app, exitStatus);
    dvtool::AddKw1281Commands(app, exitStatus);
    dvtool::AddKwp2000Commands(app, exitStatus);
    dvtool::AddLineCommands(app, exitStatus);
    dvtool::InstallInterruptHandler();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error);
    }
    return exitStatus;
}

} // namespace

int main(int argc, char **argv) {
    // Nothing escapes main: a bad argument value or an unwritable file ends with one line.
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << "dravelin: " << error.what() << "\n";
    } catch (...) {
        std::cerr << "dravelin: unexpected failure\n";
    }
    return 2;
}
