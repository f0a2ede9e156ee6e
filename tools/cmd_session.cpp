// The main job and live data: `scan` (identification, faults, first measuring groups and the
// statistics report in one run), `live` (a refreshing table until Ctrl-C) and `record` (samples
// to CSV, and an SVG chart).
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "commands.h"
#include "kw1281_session.h"
#include "kwp2000_session.h"
#include "svg_plot.h"

#if defined(_WIN32)
#include <io.h>
#define DV_ISATTY _isatty
#define DV_FILENO _fileno
#else
#include <unistd.h>
#define DV_ISATTY isatty
#define DV_FILENO fileno
#endif

namespace dvtool {
namespace {

struct SessionOptions {
    CommonOptions common;
    KwTarget kw;
    KwpTarget kwp;
    bool useKwp = false;
    std::vector<uint32_t> groups; // KW1281 groups, or KWP2000 local ids with --kwp
    double seconds = 10;
    uint32_t intervalMs = 0;
    std::string csv;
    std::string plot;
};

// One pass over the groups (or local ids): the readings of each, in order.
struct Sample {
    double time = 0;
    std::vector<std::vector<Reading>> groups;
};

uint32_t ReadPass(const SessionOptions &options, Sample &sample) {
    sample.groups.clear();
    for (uint32_t group : options.groups) {
        std::vector<Reading> readings;
        const uint32_t code = options.useKwp
                                  ? KwpReadLocalId(group, readings)
                                  : KwReadGroup(0, static_cast<uint8_t>(group), readings);
        if (code != 0) {
            return code;
        }
        sample.groups.push_back(std::move(readings));
    }
    return 0;
}

// The connection of either protocol, with what scan prints about it.
class Link {
public:
    uint32_t Open(const SessionOptions &options) {
        if (options.useKwp) {
            return kwp_.Start(options.kwp);
        }
        return kw_.Connect(options.kw);
    }
    void Close() {
        kw_.Disconnect();
        kwp_.Stop();
    }
    KwLink &kw() { return kw_; }
    KwpLink &kwp() { return kwp_; }

private:
    KwLink kw_;
    KwpLink kwp_;
};

std::string GroupName(const SessionOptions &options, uint32_t group) {
    return (options.useKwp ? "Local id " : "Group ") + std::to_string(group);
}

// The log's lines begin and end with line ends of their own; shown as text, one blank line
// between paragraphs is enough.
std::string SqueezeBlankLines(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '\n' &&
            (out.empty() || (out.size() >= 2 && out.compare(out.size() - 2, 2, "\n\n") == 0))) {
            continue;
        }
        out += c;
    }
    return out;
}

int RunScan(const SessionOptions &options) {
    Library library(options.common);
    if (library.status() != 0) {
        return ReportFailure("setting up the library", library.status());
    }
    const bool text = !options.common.json;
    Link link;
    uint32_t code = link.Open(options);
    if (code != 0) {
        return ReportFailure("connecting", code);
    }
    Json out;
    if (options.useKwp) {
        out = {{"protocol", "KWP2000"}, {"port", link.kwp().port}, {"target", link.kwp().how}};
        if (text) {
            std::printf("Dravelin scan: KWP2000, %s on %s (%s init)\n\n", link.kwp().how.c_str(),
                        link.kwp().port.c_str(), link.kwp().fast ? "fast" : "5-baud");
        }
    } else {
        out = {{"protocol", "KW1281"},
               {"port", link.kw().port},
               {"address", link.kw().address},
               {"baud", link.kw().baud},
               {"identification", link.kw().descriptions}};
        if (text) {
            std::printf("Dravelin scan: KW1281, ECU %02X on %s at %u baud\n\n", link.kw().address,
                        link.kw().port.c_str(), link.kw().baud);
            std::printf("Identification:\n");
            for (const std::string &line : link.kw().descriptions) {
                std::printf("  %s\n", line.c_str());
            }
        }
    }

    if (options.useKwp && code == 0 && !Interrupted()) {
        EcuIdentification record{};
        code = DvVagIsoReadEcuIdentificationGeneral(&record);
        if (code == 0) {
            const std::string part = ToUtf8(record.partNumber);
            const std::string component = ToUtf8(record.componentText);
            DvFree(record.partNumber);
            DvFree(record.componentText);
            out["identification"] = {{"partNumber", part},
                                     {"component", component},
                                     {"coding", record.coding},
                                     {"workshopCode", record.workshopCode}};
            if (text) {
                std::printf("Identification:\n  %s\n  %s\n  Coding %05u, workshop code %05u\n",
                            part.c_str(), component.c_str(), record.coding, record.workshopCode);
            }
        }
    }

    if (code == 0 && !Interrupted()) {
        Json faults = Json::array();
        if (options.useKwp) {
            std::vector<Dtc> dtcs;
            code = KwpReadDtcByStatus(0, 0, dtcs);
            if (text && code == 0) {
                std::printf("\nTrouble codes: %zu\n", dtcs.size());
            }
            for (const Dtc &dtc : dtcs) {
                faults.push_back({{"code", dtc.code}, {"status", dtc.status}});
                if (text) {
                    std::printf("  %05u (0x%04X) - status 0x%X\n", dtc.code, dtc.code, dtc.status);
                }
            }
        } else {
            std::vector<Fault> list;
            code = KwReadFaults(list);
            const size_t real = (list.size() == 1 && IsNoFaultEntry(list[0])) ? 0 : list.size();
            if (text && code == 0) {
                std::printf("\nFault memory: %zu fault%s\n", real, real == 1 ? "" : "s");
            }
            for (const Fault &fault : list) {
                faults.push_back({{"code", fault.code},
                                  {"elaboration", fault.elaboration},
                                  {"intermittent", fault.intermittent},
                                  {"text", FaultText(fault)}});
                if (text) {
                    std::printf("  %s\n", FaultText(fault).c_str());
                }
            }
        }
        out["faults"] = faults;
    }

    if (code == 0 && !Interrupted()) {
        // A group the ECU does not have is refused (256, or a negative KWP2000 answer): shown as
        // such, not a failure of the scan.
        Json groups = Json::array();
        for (uint32_t group : options.groups) {
            if (Interrupted()) {
                break;
            }
            std::vector<Reading> readings;
            const uint32_t groupCode = options.useKwp
                                           ? KwpReadLocalId(group, readings)
                                           : KwReadGroup(0, static_cast<uint8_t>(group), readings);
            if (groupCode >= 256) {
                groups.push_back({{"group", group}, {"refused", groupCode}});
                if (text) {
                    std::printf("\n%s: not available (%s)\n", GroupName(options, group).c_str(),
                                ExplainResult(groupCode).c_str());
                }
                continue;
            }
            if (groupCode != 0) {
                code = groupCode;
                break;
            }
            groups.push_back({{"group", group}, {"values", ReadingsJson(readings)}});
            if (text) {
                std::printf("\n%s:\n", GroupName(options, group).c_str());
                PrintReadings(readings);
            }
        }
        out[options.useKwp ? "localIds" : "groups"] = groups;
        if (code == 0 && !options.useKwp) {
            code = DvVagCloseGroupMeasurements();
        }
    }

    // The statistics report is part of the library's log at the progress level.
    StartLogCapture();
    link.Close();
    const std::string report = TakeLogCapture();
    out["report"] = report;
    if (code != 0) {
        return ReportFailure("scan", code);
    }
    if (text) {
        std::printf("\n%s", SqueezeBlankLines(report).c_str());
    } else {
        PrintJson(out);
    }
    return 0;
}

void DrawTable(const SessionOptions &options, const Sample &sample, bool terminal,
               uint32_t passes) {
    if (terminal) {
        std::printf("\033[H\033[2J");
    }
    std::printf("Dravelin live: %u pass%s, %.1f s (Ctrl-C to stop)\n", passes,
                passes == 1 ? "" : "es", sample.time);
    for (size_t i = 0; i < sample.groups.size(); ++i) {
        std::printf("%s:\n", GroupName(options, options.groups[i]).c_str());
        PrintReadings(sample.groups[i]);
    }
    std::fflush(stdout);
}

int RunLive(const SessionOptions &options) {
    Library library(options.common);
    if (library.status() != 0) {
        return ReportFailure("setting up the library", library.status());
    }
    Link link;
    uint32_t code = link.Open(options);
    if (code != 0) {
        return ReportFailure("connecting", code);
    }
    const bool terminal = DV_ISATTY(DV_FILENO(stdout)) != 0 && !options.common.json;
    const auto start = std::chrono::steady_clock::now();
    uint32_t passes = 0;
    // Each reading keeps the link alive; Ctrl-C ends the loop and the link is closed cleanly.
    while (!Interrupted() &&
           (options.seconds <= 0 ||
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() <
                options.seconds)) {
        Sample sample;
        code = ReadPass(options, sample);
        if (code != 0) {
            break;
        }
        ++passes;
        sample.time =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (options.common.json) {
            Json groups = Json::array();
            for (size_t i = 0; i < sample.groups.size(); ++i) {
                groups.push_back(
                    {{"group", options.groups[i]}, {"values", ReadingsJson(sample.groups[i])}});
            }
            std::printf("%s\n", Json({{"time", sample.time}, {"groups", groups}}).dump().c_str());
            std::fflush(stdout);
        } else {
            DrawTable(options, sample, terminal, passes);
        }
        if (options.intervalMs != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
        }
    }
    if (code == 0 && !options.useKwp) {
        code = DvVagCloseGroupMeasurements();
    }
    link.Close();
    if (code != 0) {
        return ReportFailure("live", code);
    }
    if (!options.common.json) {
        std::printf("Disconnected after %u passes\n", passes);
    }
    return 0;
}

std::string CsvField(const std::string &text) {
    if (text.find_first_of(",\"\n") == std::string::npos) {
        return text;
    }
    std::string out = "\"";
    for (char c : text) {
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return out + "\"";
}

int RunRecord(const SessionOptions &options) {
    Library library(options.common);
    if (library.status() != 0) {
        return ReportFailure("setting up the library", library.status());
    }
    std::ofstream csv(options.csv, std::ios::binary);
    if (!csv) {
        std::cerr << "dravelin: cannot write " << options.csv << "\n";
        return 2;
    }
    Link link;
    uint32_t code = link.Open(options);
    if (code != 0) {
        return ReportFailure("connecting", code);
    }
    std::vector<Sample> samples;
    const auto start = std::chrono::steady_clock::now();
    while (!Interrupted()) {
        Sample sample;
        sample.time =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (sample.time >= options.seconds) {
            break;
        }
        code = ReadPass(options, sample);
        if (code != 0) {
            break;
        }
        samples.push_back(std::move(sample));
        if (!options.common.json && DV_ISATTY(DV_FILENO(stderr))) {
            std::fprintf(stderr, "\rRecording: %zu samples, %.1f s ", samples.size(),
                         samples.back().time);
        }
        if (options.intervalMs != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
        }
    }
    if (!options.common.json && DV_ISATTY(DV_FILENO(stderr))) {
        std::fprintf(stderr, "\r\033[K");
    }
    if (code == 0 && !options.useKwp) {
        code = DvVagCloseGroupMeasurements();
    }
    link.Close();
    if (code != 0) {
        return ReportFailure("record", code);
    }

    // Columns from the first sample: one a value, named group.position and unit.
    std::vector<Series> series;
    if (!samples.empty()) {
        for (size_t g = 0; g < samples[0].groups.size(); ++g) {
            for (size_t v = 0; v < samples[0].groups[g].size(); ++v) {
                const Reading &r = samples[0].groups[g][v];
                series.push_back(
                    {GroupName(options, options.groups[g]) + "." + std::to_string(v + 1),
                     r.hasText ? "" : UnitFor(r.kind).unit,
                     {},
                     {}});
            }
        }
    }
    csv << "time_s";
    for (const Series &s : series) {
        csv << "," << CsvField(s.name + (s.unit.empty() ? "" : " [" + s.unit + "]"));
    }
    csv << "\n";
    for (const Sample &sample : samples) {
        char time[32];
        std::snprintf(time, sizeof time, "%.3f", sample.time);
        csv << time;
        size_t column = 0;
        for (const auto &group : sample.groups) {
            for (const Reading &r : group) {
                char number[48];
                std::snprintf(number, sizeof number, "%.6g", NumericValue(r));
                csv << "," << (r.hasText ? CsvField(r.text) : std::string(number));
                if (column < series.size() && !r.hasText) {
                    series[column].times.push_back(sample.time);
                    series[column].values.push_back(NumericValue(r));
                }
                ++column;
            }
        }
        csv << "\n";
    }
    csv.close();
    if (!options.plot.empty()) {
        std::ofstream svg(options.plot, std::ios::binary);
        svg << PlotSvg("Dravelin recording, " + std::to_string(samples.size()) + " samples",
                       series);
        if (!svg) {
            std::cerr << "dravelin: cannot write " << options.plot << "\n";
            return 2;
        }
    }
    if (options.common.json) {
        PrintJson({{"samples", samples.size()},
                   {"columns", series.size()},
                   {"csv", options.csv},
                   {"plot", options.plot}});
    } else {
        std::printf("Recorded %zu samples of %zu values to %s%s%s\n", samples.size(), series.size(),
                    options.csv.c_str(), options.plot.empty() ? "" : " and ", options.plot.c_str());
    }
    return 0;
}

CLI::App *AddSession(CLI::App &app, const char *name, const char *help,
                     const std::shared_ptr<SessionOptions> &options) {
    CLI::App *command = app.add_subcommand(name, help);
    AddCommonOptions(*command, options->common);
    command->add_option("-p,--port", options->kw.port,
                        "Serial port of the KKL cable (COM3, /dev/ttyUSB0) or an emulated ECU "
                        "(vecu:kw1281-engine); without it the built-in simulator answers");
    options->kw.addressOption = command->add_option(
        "-a,--address", options->kw.address, "KW1281 ECU address (0x01 engine; 0x80 simulator)");
    options->kw.baudOption =
        command->add_option("-b,--baud", options->kw.baud, "KW1281 baud rate (10400; 9600)");
    command->add_flag("--kwp", options->useKwp, "KWP2000 instead of KW1281");
    options->kwp.moduleOption = command->add_option(
        "-m,--module", options->kwp.module, "KWP2000 module address (with --kwp; 0x80 simulator)");
    options->kwp.addressOption = command->add_option("--kwp-address", options->kwp.address,
                                                     "KWP2000 ECU address instead of a module");
    command->add_flag("--fast", options->kwp.fast, "KWP2000 fast initialisation");
    command->add_option("--interval", options->intervalMs, "Pause between passes, ms");
    return command;
}

} // namespace

void AddSessionCommands(CLI::App &app, int &exitStatus) {
    auto scan = std::make_shared<SessionOptions>();
    CLI::App *scanCommand = AddSession(
        app, "scan",
        "The main job: connect, print identification, fault memory and the first measuring "
        "groups (or local-id data), disconnect with the statistics report",
        scan);
    scanCommand->add_option("--groups", scan->groups, "Groups (or local ids) to read")
        ->delimiter(',');
    scanCommand->callback([scan, &exitStatus] {
        scan->kwp.port = scan->kw.port;
        if (scan->groups.empty()) {
            scan->groups = scan->useKwp ? std::vector<uint32_t>{1} : std::vector<uint32_t>{1, 2, 3};
        }
        exitStatus = RunScan(*scan);
    });

    auto live = std::make_shared<SessionOptions>();
    live->seconds = 0;
    CLI::App *liveCommand =
        AddSession(app, "live",
                   "Show measuring groups (or local ids) as a refreshing table until Ctrl-C", live);
    liveCommand->add_option("groups", live->groups, "Groups (or local ids with --kwp)")->required();
    liveCommand->add_option("--seconds", live->seconds, "Stop after this long (0: until Ctrl-C)");
    liveCommand->callback([live, &exitStatus] {
        live->kwp.port = live->kw.port;
        exitStatus = RunLive(*live);
    });

    auto record = std::make_shared<SessionOptions>();
    CLI::App *recordCommand = AddSession(
        app, "record", "Record measuring groups (or local ids) to CSV, optionally an SVG chart",
        record);
    recordCommand->add_option("groups", record->groups, "Groups (or local ids with --kwp)")
        ->required();
    recordCommand->add_option("--seconds", record->seconds, "How long to record")
        ->capture_default_str();
    recordCommand->add_option("--csv", record->csv, "CSV file to write")->required();
    recordCommand->add_option("--plot", record->plot, "SVG chart to write");
    recordCommand->callback([record, &exitStatus] {
        record->kwp.port = record->kw.port;
        exitStatus = RunRecord(*record);
    });
}

} // namespace dvtool
