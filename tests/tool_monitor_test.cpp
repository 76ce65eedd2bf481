// What the tool tells about streams and about the hosts of this machine.
#include <bitstream/mpeg/psi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "Errors.h"
#include "ProcessSupport.h"
#include "SafeText.h"
#include "StreamAnalyzer.h"
#include "TableReport.h"

namespace {

using nlohmann::json;
using namespace std::string_literals;

std::span<const uint8_t> Bytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

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
    for (size_t at = 0; at < stream.size(); at += 1316)  // at 800 kbit/s
        analyzer.feed(Bytes(stream.substr(at, 1316)), std::chrono::microseconds(at * 10));
    return analyzer.report();
}

TEST(ToolAnalyzer, FindsProgrammesClocksAndErrorsAndSurvivesDamage) {
    // The packets of a datagram come together: evenly spread over six packets' time.
    const PcrReport clock = Analyze(Contents(SAMPLE_PATH)).pcrs.at(0);
    EXPECT_NEAR(clock.jitterPeakToPeak_ms, 13.16 * 6 / 7, 0.1);
    EXPECT_NEAR(clock.jitterRms_ms, 13.16 / std::sqrt(12), 0.3);
    // H.264 and, behind a descriptor that fills a packet, Polish AC-3, which lacks a packet.
    std::string stream = Packets("\0\0"s, "\0"s, "\0\1\1\0\0\0\5\x01\0"s);
    stream += Packets("\1\0"s, "\2",
                      "\0\5\1\0\0\1\1\0\0\x1B\1\1\0\xCA\x80\xC8"s + std::string(200, 'f') +
                          "\6\1\2\0\x09\x6A\1\0\x0A\4pol\0"s);
    stream += Packets("\0\x11"s, "\x42",
                      "\0\1\1\0\0\0\1\xFF\0\5\0\0\x0C\x48\x0A\1\3T\xC8u\4\1\xBF\x86!"s);
    for (const char header : {0x11, 0x12, 0x14, 0x15, 0x16})
        stream += "\x47\x01\x02"s + header + std::string(184, 'a');
    const StreamReport made = Analyze(stream);
    ASSERT_EQ(made.pids.size(), 4u);
    EXPECT_EQ(made.programmes.at(0).service->provider + made.programmes[0].service->name, "TüП!");
    EXPECT_EQ(made.pids[3].kind + made.pids[3].codec + made.pids[3].language, "audioAC-3pol");
    EXPECT_EQ(made.pids[3].continuityErrors, 1u);
    for (size_t i = 0; i < stream.size() - 5 * 188; ++i) {
        std::string damaged = stream;
        damaged[i] = static_cast<char>(~damaged[i]);
        EXPECT_LE(Analyze(damaged).packets, 9u);
    }
    // ISO/IEC 6937, ISO/IEC 8859-2, UCS-2, UTF-8; a table that is reserved
    for (const auto& [text, expected] :
         std::map<std::string, const char*>{{"\xC8u \xA4\x86\x1B[2J\x8A\xC8", "ü €[2J \uFFFD"},
                                            {"\x10\0\x02\xB1"s, "ą"},
                                            {"\x11\x04\x10\xE0\x8A", "А "},
                                            {"\x15\xC3\xA9\xFF-\xE2\x80\xAE", "é\uFFFD-"},
                                            {"\x0C?\xFF", "?\uFFFD"}})
        EXPECT_EQ(dvbText(Bytes(text)), expected);
}

// What is no line of the text format.
std::string Malformed(const std::string& metrics) {
    static const std::regex valid(
        "(# HELP [a-z_]+ .*|# TYPE [a-z_]+ gauge|"
        "[a-z_]+(\\{([a-z]+=\"([^\"\\\\\n]|\\\\[\"\\\\n])*\",?)*\\})? [0-9]+)\n");
    return std::regex_replace(metrics, valid, "");
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
    EXPECT_EQ(Malformed(tablePrometheus(table, {}, true)), "");
    EXPECT_EQ(json::parse(tableJson(table, {}, true))["channels"].size(), 32u);
    for (const char c : tableText(table, {}, true, std::nullopt))
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7F)) << static_cast<int>(c);
}

std::string Tool(const std::string& arguments) {
    EXPECT_EQ(system((arguments + " > /tmp/output").c_str()), 0) << arguments;
    return Contents("/tmp/output");
}

TEST(ToolMonitor, ShowsARunningSenderAndItsStreamAndLeavesTheTableAlone) {
    const std::string table = "/tmp/__QXV_RTP_SHARE_MEMORY__", tool = TOOL_PATH " ";
    const pid_t sender = Fork([] {
        return execl(TOOL_PATH, "qxvrtp", "send", "-l", SAMPLE_PATH, "rtp://127.0.0.1:7040",
                     nullptr);
    });
    EXPECT_TRUE(Await([&] { return Contents(table).size() == 17680; }));
    const std::string state = Tool("stat -c '%i %Y %Z' " + table);
    json status;
    EXPECT_TRUE(Await([&] {
        status = json::parse(Tool(tool + "status --json"));
        return status["channels"].size() == 1 && status["channels"][0]["bitrate_bps"] > 700000;
    })) << status;
    EXPECT_EQ(status["hosts"][0]["pid"], sender);
    const std::string metrics = Tool(tool + "status --prometheus --all");
    EXPECT_EQ(Malformed(metrics), "");
    EXPECT_NE(metrics.find("\",address=\"127.0.0.1\",port=\"7040\"} 800000\n"), std::string::npos);
    EXPECT_EQ(Tool(tool + "top -n 2 -i 0.1").find('\033'), std::string::npos);
    EXPECT_EQ(Tool("stat -c '%i %Y %Z' " + table), state);
    const json probe = json::parse(Tool("unshare -m sh -c 'mount -t tmpfs t /tmp; exec " + tool +
                                        "probe rtp://@127.0.0.1:7040 -d 1.5 --json'"));
    EXPECT_EQ(probe["encapsulation"], "rtp");
    EXPECT_EQ(probe["programmes"][0]["name"], "Service01");
    kill(sender, SIGINT);
    EXPECT_EQ(Reap(sender), 0);
    EXPECT_EQ(json::parse(Tool(tool + "status --json"))["hosts"].size(), 0u);
}

}  // namespace
