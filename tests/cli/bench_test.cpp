// veltrix bench on a short time budget: it measures, prints its table and writes one CSV row per
// figure with positive values.
#include "cliRun.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace vxclitest;

namespace {

std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, ',');) {
        out.push_back(field);
    }
    return out;
}

TEST(benchCommand, writesOneCsvRowPerFigure)
{
    const scratchDir dir;
    const std::string csv = dir.file("bench.csv");
    const runResult run = runVeltrix({"bench", "--seconds", "0.02", "--csv", csv}, "", 120);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("handshake"), std::string::npos) << run.out;

    std::istringstream lines(readFile(csv));
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line, "name,payload_bytes,library,reference,unit,ratio");
    std::map<std::string, int> rows; // "name payload unit" -> count
    while (std::getline(lines, line)) {
        const std::vector<std::string> row = fields(line);
        ASSERT_EQ(row.size(), 6U) << line;
        for (const size_t value : {2U, 3U, 5U}) {
            EXPECT_GT(std::stod(row[value]), 0.0) << line;
        }
        ++rows[row[0] + " " + row[1] + " " + row[4]];
    }
    // The packet rows, the handshake, and a tunnel pair on loopback: bulk writes and round trips.
    // Only a program run under an emulator may leave the tunnel rows out, and says so.
    std::vector<std::string> expected = {"handshake 0 us/handshake", "handshake 0 handshakes/s"};
    if (std::getenv("VX_TEST_WRAPPER") == nullptr ||
        run.err.find("the tunnel rows are left out") == std::string::npos) {
        expected.insert(expected.end(),
                        {"tunnel 16384 us/write", "tunnel 16384 writes/s", "tunnel 16384 MB/s",
                         "tunnel-rtt 1 us/round-trip", "tunnel-rtt 1 round-trips/s"});
    }
    for (const char* side : {"send", "receive"}) {
        for (const char* size : {"0", "16", "1024", "16384"}) {
            const std::string key = std::string(side) + " " + size + " ";
            expected.push_back(key + "us/packet");
            expected.push_back(key + "packets/s");
            if (std::string(size) != "0") {
                expected.push_back(key + "MB/s");
            }
        }
    }
    EXPECT_EQ(rows.size(), expected.size());
    for (const std::string& key : expected) {
        EXPECT_EQ(rows[key], 1) << key;
    }
}

} // namespace
