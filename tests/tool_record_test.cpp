// `dravelin record`: timestamped samples to CSV (a header and one row a sample, as many as the
// program reports) and an SVG chart that an XML parser accepts, one panel a value.
#include <tinyxml2.h>

#include <cstdlib>

#include "tool_run.h"

namespace dvtooltest {
namespace {

using nlohmann::json;

std::vector<std::string> Fields(const std::string &row) {
    std::vector<std::string> fields;
    std::string field;
    for (char c : row) {
        if (c == ',') {
            fields.push_back(field);
            field.clear();
        } else {
            field += c;
        }
    }
    fields.push_back(field);
    return fields;
}

// The CSV of a recording of one group with four values (the simulators' group 1 / local id 1).
void ExpectCsv(const std::string &path, size_t samples, const std::string &header) {
    const std::vector<std::string> rows = Lines(ReadFile(path));
    ASSERT_EQ(rows.size(), samples + 1) << ReadFile(path);
    EXPECT_EQ(rows[0], header);
    double last = -1;
    for (size_t i = 1; i < rows.size(); ++i) {
        const std::vector<std::string> fields = Fields(rows[i]);
        ASSERT_EQ(fields.size(), 5u) << rows[i];
        const double time = std::strtod(fields[0].c_str(), nullptr);
        EXPECT_GT(time, last) << rows[i];
        EXPECT_LT(time, 1.0) << rows[i];
        last = time;
        EXPECT_EQ(fields[1], "800"); // 8000 / 10 rpm
        EXPECT_EQ(fields[2], "92");  // 920 / 10 degrees C
        const double wave = std::strtod(fields[3].c_str(), nullptr);
        EXPECT_GE(wave, 0.9);
        EXPECT_LE(wave, 1.1);
        EXPECT_EQ(fields[4], "23360"); // the bit field as a number
    }
}

// The chart: well-formed XML, an <svg> root in the SVG namespace, one panel a value, each with
// a polyline of one point a sample inside the drawing.
void ExpectSvg(const std::string &path, size_t samples, const std::string &firstTitle) {
    tinyxml2::XMLDocument svg;
    ASSERT_EQ(svg.LoadFile(path.c_str()), tinyxml2::XML_SUCCESS) << svg.ErrorStr();
    const tinyxml2::XMLElement *root = svg.RootElement();
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->Name(), "svg");
    EXPECT_STREQ(root->Attribute("xmlns"), "http://www.w3.org/2000/svg");
    const double width = root->DoubleAttribute("width");
    const double height = root->DoubleAttribute("height");
    EXPECT_GT(width, 0);
    EXPECT_GT(height, 0);
    const tinyxml2::XMLElement *title = root->FirstChildElement("text");
    ASSERT_NE(title, nullptr);
    EXPECT_EQ(std::string(title->GetText()),
              "Dravelin recording, " + std::to_string(samples) + " samples");
    size_t panels = 0;
    for (const tinyxml2::XMLElement *g = root->FirstChildElement("g"); g != nullptr;
         g = g->NextSiblingElement("g")) {
        ASSERT_STREQ(g->Attribute("class"), "panel");
        const tinyxml2::XMLElement *name = g->FirstChildElement("text");
        ASSERT_NE(name, nullptr);
        if (panels == 0) {
            EXPECT_EQ(std::string(name->GetText()), firstTitle);
        }
        const tinyxml2::XMLElement *line = g->FirstChildElement("polyline");
        ASSERT_NE(line, nullptr);
        std::istringstream points(line->Attribute("points"));
        size_t count = 0;
        for (std::string point; points >> point; ++count) {
            const size_t comma = point.find(',');
            ASSERT_NE(comma, std::string::npos) << point;
            const double x = std::strtod(point.substr(0, comma).c_str(), nullptr);
            const double y = std::strtod(point.substr(comma + 1).c_str(), nullptr);
            EXPECT_GE(x, 0);
            EXPECT_LE(x, width);
            EXPECT_GE(y, 0);
            EXPECT_LE(y, height);
        }
        EXPECT_EQ(count, samples);
        ++panels;
    }
    EXPECT_EQ(panels, 4u);
}

TEST(ToolRecord, Kw1281GroupOneToCsvAndSvg) {
    TempDir dir;
    const std::string csv = dir.File("group1.csv");
    const std::string plot = dir.File("group1.svg");
    const json doc =
        RunJson({"record", "1", "--seconds", "1", "--csv", csv, "--plot", plot, "--json"});
    const size_t samples = doc["samples"].get<size_t>();
    // One group reading of the simulator takes 200 ms: about five in a second.
    EXPECT_GE(samples, 3u);
    EXPECT_LE(samples, 5u);
    EXPECT_EQ(doc["columns"], 4);
    EXPECT_EQ(doc["csv"], csv);
    EXPECT_EQ(doc["plot"], plot);
    ExpectCsv(csv, samples,
              "time_s,Group 1.1 [rpm],Group 1.2 [\xC2\xB0"
              "C],Group 1.3,Group 1.4");
    ExpectSvg(plot, samples, "Group 1.1 [rpm]");
}

TEST(ToolRecord, KwpLocalIdToCsvAndSvgWithTextSummary) {
    TempDir dir;
    const std::string csv = dir.File("local1.csv");
    const std::string plot = dir.File("local1.svg");
    const RunResult r =
        RunTool({"record", "1", "--kwp", "--seconds", "1", "--csv", csv, "--plot", plot});
    ASSERT_TRUE(r.exited);
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    const size_t rows = Lines(ReadFile(csv)).size();
    ASSERT_GE(rows, 2u);
    const size_t samples = rows - 1;
    EXPECT_EQ(r.out, "Recorded " + std::to_string(samples) + " samples of 4 values to " + csv +
                         " and " + plot + "\n");
    EXPECT_GE(samples, 3u);
    EXPECT_LE(samples, 5u);
    ExpectCsv(csv, samples,
              "time_s,Local id 1.1 [rpm],Local id 1.2 [\xC2\xB0"
              "C],Local id 1.3,Local id 1.4");
    ExpectSvg(plot, samples, "Local id 1.1 [rpm]");
}

TEST(ToolRecord, UnwritableCsvIsRefusedBeforeConnecting) {
    const RunResult r = RunTool({"record", "1", "--csv", "/dev/does-not-exist/x.csv"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_EQ(r.err, "dravelin: cannot write /dev/does-not-exist/x.csv\n");
}

} // namespace
} // namespace dvtooltest
