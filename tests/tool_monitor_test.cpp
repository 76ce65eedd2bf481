// What the tool tells about streams and about the hosts of this machine.
#include <bitstream/mpeg/psi.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "ProcessSupport.h"
#include "StreamAnalyzer.h"
#include "base/Errors.h"
#include "reports/TableReport.h"

namespace {

using nlohmann::json;
using namespace std::string_literals;

// Packets of one section: a PID, a table, and what stands between its length and its CRC.
std::string Packets(const std::string& pid, const std::string& table, const std::string& body) {
    std::string section = table + "\x80\0"s + body + "CRC_", packets;
    auto* const data = reinterpret_cast<uint8_t*>(section.data());
    psi_set_length(data, static_cast<uint16_t>(body.size() + PSI_CRC_SIZE));
    psi_set_crc(data);
    section = '\0' + section;
    for (size_t i = 0; i * 184 < section.size(); ++i) {
        packets += '\x47' + pid + static_cast<char>(0x10 | i) + section.substr(i * 184, 184);
        packets.resize((i + 1) * 188, '\xFF');
        packets[i * 188 + 1] |= i == 0 ? 0x40 : 0;
    }
    return packets;
}

StreamReport Analyze(const std::string& stream) {
    StreamAnalyzer analyzer;
    const std::vector<uint8_t> bytes(stream.begin(), stream.end());
    for (size_t at = 0; at + 1316 <= bytes.size(); at += 1316)  // at 800 kbit/s
        analyzer.feed(std::span(bytes).subspan(at, 1316), std::chrono::microseconds(at * 10));
    return analyzer.report();
}

TEST(ToolAnalyzer, FindsProgrammesClocksAndErrorsAndSurvivesDamage) {
    // The packets of a datagram come together: up to six packets' time before their own.
    EXPECT_NEAR(Analyze(Contents(SAMPLE_PATH)).pcrs.at(0).jitterPeakToPeak_ms, 11.28, 0.1);
    const std::string pat = Packets("\0\0"s, "\0"s, "\0\1\1\0\0\0\5\x01\0"s);
    // H.264 and, behind a descriptor that fills a packet, Polish AC-3, which lacks a packet.
    std::string pmt = "\0\5\1\0\0\1\1\0\0\x1B\1\1\0\xCA\x80\xC8"s + std::string(200, 'f');
    pmt += "\6\1\2\0\x09\x6A\1\0\x0A\4pol\0"s;
    std::string sdt = "\0\1\1\0\0\0\1\xFF\0\5\0\0\x11\x48\x0F\1\6\xC8u\xA4\x1B?\xC8\6\1\xBF\x86"s;
    sdt += "\x1B[!";  // ISO/IEC 6937 and 8859-5
    std::string stream = pat + Packets("\1\0"s, "\2", pmt) + Packets("\0\x11"s, "\x42", sdt);
    for (int i = 0; i < 10; ++i) {
        stream += "\x47\x01\x02"s + static_cast<char>(0x10 + i + i / 5);
        stream.append(184, 'a');
    }
    const StreamReport made = Analyze(stream);
    ASSERT_EQ(made.pids.size(), 4u);
    EXPECT_EQ(made.programmes.at(0).service->provider, "ü€?\uFFFD");
    EXPECT_EQ(made.programmes[0].service->name, "П[!");
    EXPECT_EQ(made.pids[3].kind + made.pids[3].codec + made.pids[3].language, "audioAC-3pol");
    EXPECT_EQ(made.pids[3].continuityErrors, 1u);
    for (char& byte : pmt) {  // lengths that lead beyond the section, whose CRC is right
        const char was = std::exchange(byte, '\xFF');
        const StreamReport damaged = Analyze(pat + Packets("\1\0"s, "\2", pmt) + stream);
        EXPECT_EQ(damaged.programmes.at(0).streams.size(), 2u) << "the good one follows";
        byte = was;
    }
}

TEST(ToolTable, IsNotBelieved) {
    std::ofstream("/tmp/short") << std::string(17679, '\0');
    EXPECT_EQ(symlink("short", "/tmp/link") + mkfifo("/tmp/fifo", 0600), 0);
    for (const char* path : {"/tmp/none", "/tmp/short", "/tmp/link", "/tmp/fifo", "/tmp"})
        EXPECT_THROW(readTable(path), Failure) << path;
    std::string garbage(17680, '\0');  // every byte but NUL, at changing places
    for (size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<char>(1 + i % 255);
    std::ofstream("/tmp/garbage") << garbage;
    const ChannelTable table = readTable("/tmp/garbage");
    const std::regex metric(
        "(# HELP [a-z_]+ .*|# TYPE [a-z_]+ gauge|[a-z_]+"
        "(\\{([a-z]+=\"([^\"\\\\\n]|\\\\[\"\\\\n])*\",?)*\\})? [0-9]+)\n");
    EXPECT_EQ(std::regex_replace(tablePrometheus(table, {}, true), metric, ""), "");
    EXPECT_EQ(json::parse(tableJson(table, {}, true))["channels"].size(), 32u);
    for (const char c : tableText(table, {}, true, std::nullopt))
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7F)) << static_cast<int>(c);
}

std::string Tool(const std::string& command) {
    EXPECT_EQ(system((command + " > /tmp/output").c_str()), 0) << command;
    return Contents("/tmp/output");
}

TEST(ToolMonitor, ShowsARunningSenderAndItsStreamAndLeavesTheTableAlone) {
    const std::string table = "/tmp/__QXV_RTP_SHARE_MEMORY__", tool = TOOL_COMMAND " ";
    const char* const url = "rtp://127.0.0.1:7040";
    const pid_t sender =
        Fork([&] { return execl(TOOL_PATH, "qxvrtp", "send", "-l", SAMPLE_PATH, url, nullptr); });
    EXPECT_TRUE(Await([&] { return Contents(table).size() == 17680; }));
    const std::string file = Tool("stat -c '%i %Y %Z' " + table);
    json status;
    EXPECT_TRUE(Await([&] {
        status = json::parse(Tool(tool + "status --json"));
        return status["channels"].size() == 1 && status["channels"][0]["bitrate_bps"] > 700000;
    })) << status;
    EXPECT_EQ(status["hosts"][0]["pid"], sender);
    EXPECT_NE(Tool(tool + "status -p").find("port=\"7040\"} 800000\n"), std::string::npos);
    EXPECT_EQ(Tool(tool + "top -n 2 -i 0.1").find('\033'), std::string::npos);
    EXPECT_EQ(Tool("stat -c '%i %Y %Z' " + table), file);
    const json probe = json::parse(Tool("unshare --mount " PRIVATE_TMP " " + tool +
                                        "probe rtp://@127.0.0.1:7040 -d 1.5 --json"));
    EXPECT_EQ(probe["programmes"][0]["name"], "Service01") << probe;
    kill(sender, SIGINT);
    EXPECT_EQ(Reap(sender), 0);
    EXPECT_EQ(json::parse(Tool(tool + "status --json"))["hosts"].size(), 0u);
}

}  // namespace
