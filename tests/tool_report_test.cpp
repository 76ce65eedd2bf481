// What the tool prints about tables, hosts and streams: whole texts, made from data in which no two
// numbers are the same.
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <regex>

#include "DvbText.h"
#include "ProcessSupport.h"
#include "QXV_RTP_table.h"
#include "StreamSupport.h"
#include "base/Errors.h"
#include "base/SafeText.h"
#include "reports/Json.h"
#include "reports/Prometheus.h"
#include "reports/Screen.h"
#include "reports/Text.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using namespace std::string_literals;

// Three running channels among 32: a sender to a group, one whose socket is not open, a receiver.
QXV_RTP_Table MakeTable() {
    QXV_RTP_Table table{};
    table.HandleCount = 3;
    table.TxChannelCount = table.RxChannelCount = QXV_RTP_CHANNELS;
    for (uint32_t i = 0; i < 2 * QXV_RTP_CHANNELS; ++i) {
        auto& channel = table.Channels[i / QXV_RTP_CHANNELS][i % QXV_RTP_CHANNELS];
        channel.Direction = i / QXV_RTP_CHANNELS;
        channel.Channel = i % QXV_RTP_CHANNELS;
    }
    const auto run = [&table](uint32_t direction, uint32_t number, uint32_t asked,
                              uint32_t measured, uint32_t buffer, const char* local,
                              const char* remote, uint8_t rtp, uint16_t port) {
        auto& channel = table.Channels[direction][number];
        channel.Bitrate = asked;
        channel.BitrateActual = measured;
        channel.BufferSize = buffer;
        strcpy(channel.Config.LocalAddress, local);
        strcpy(channel.Config.RemoteAddress, remote);
        channel.Config.Multicast = strchr("2f", *remote) != nullptr;
        channel.Config.Rtp = rtp;
        channel.Config.Ttl = static_cast<uint8_t>(7 + number);
        channel.Config.Port = port;
    };
    run(0, 2, 5000000, 4987654, 156416, "192.0.2.7", "239.1.1.1", 1, 5000);
    run(0, 15, 123456, 1, 65536, "::", "ff15::1", 0, 5002);
    table.Channels[0][15].Reopen = 1;
    run(1, 3, 0, 8000004, 4194304, "192.0.2.8", "0.0.0.0", 0, 5004);
    return table;
}

ChannelTable Read(const QXV_RTP_Table& table) {
    std::ofstream("/tmp/table", std::ios::binary)
        .write(reinterpret_cast<const char*>(&table), sizeof(table));
    ChannelTable read = readTable("/tmp/table");
    read.owner = "user";
    return read;
}

const TableHosts kHosts{{{4711, "player", false}, {12, "old", true}}, 5, ""};

TEST(ToolReport, OfATableIsThatToTheLetter) {
    const ChannelTable table = Read(MakeTable());
    EXPECT_EQ(tableText(table, kHosts, false, std::nullopt),
              R"(# /tmp/table of user, hosts: 4711 player, 12 old (its table was replaced)
#dir    ch mode state   socket     Mbit/s   asked  KiB address local
send     2 rtp  running open        4.988   5.000  152 239.1.1.1:5000 192.0.2.7
send    15 raw  running pending     0.000   0.123   64 [ff15::1]:5002 -
receive  3 raw  running open        8.000       - 4096 192.0.2.8:5004 -
)");
    const std::string all = tableText(table, {}, true, 30);
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2 + 32);
    EXPECT_NE(all.find("\nreceive 15 raw  idle    -     \n"), std::string::npos) << all;
    EXPECT_EQ(tableText(Read(QXV_RTP_Table{}), {}, false, std::nullopt),
              R"(# /tmp/table of user, hosts: none alive
# the table is damaged: do not rely on it
#dir    ch mode state   socket     Mbit/s   asked  KiB address local
# no channel is running
)");
    const json object = json::parse(tableJson(table, kHosts, false));
    EXPECT_EQ(object, json::parse(R"({"path": "/tmp/table", "owner": "user", "damaged": false,
        "handles": 3, "alive": true, "alive_unknown_because": null, "hidden_processes": 5,
        "hosts": [{"pid": 4711, "command": "player", "replaced": false},
                  {"pid": 12, "command": "old", "replaced": true}],
        "channels": [
          {"direction": "send", "channel": 2, "running": true, "mode": "rtp", "ttl": 9,
           "address": "239.1.1.1", "port": 5000, "local_address": "192.0.2.7",
           "socket_open": true, "bitrate_bps": 4987654, "asked_bitrate_bps": 5000000,
           "buffer_bytes": 156416},
          {"direction": "send", "channel": 15, "running": true, "mode": "raw", "ttl": 22,
           "address": "ff15::1", "port": 5002, "local_address": null, "socket_open": false,
           "bitrate_bps": 1, "asked_bitrate_bps": 123456, "buffer_bytes": 65536},
          {"direction": "receive", "channel": 3, "running": true, "mode": "raw", "ttl": 10,
           "address": "192.0.2.8", "port": 5004, "local_address": null, "socket_open": true,
           "bitrate_bps": 8000004, "asked_bitrate_bps": null, "buffer_bytes": 4194304}]})"))
        << object;
}

// Is it in the text format, with names and base units as the format's own checker wants them?
void ExpectMetrics(const std::string& text) {
    const std::regex line(
        "# HELP (qxvrtp_[a-z_]+) [A-Z][^\n]*\\.\n# TYPE (qxvrtp_[a-z_]+) gauge\n|"
        "(qxvrtp_[a-z_]+)(\\{([a-z]+=\"([^\"\\\\\n]|\\\\[\"\\\\n])*\",?)*\\})? ([0-9.]+|NaN)\n");
    std::smatch found;
    std::string family;
    for (std::string rest = text; !rest.empty(); rest = found.suffix()) {
        ASSERT_TRUE(std::regex_search(rest, found, line, std::regex_constants::match_continuous))
            << rest;
        if (found[1].matched)
            family = found[1];
        EXPECT_EQ(found[1].matched ? found[2] : found[3], family);
        EXPECT_FALSE(std::regex_search(family, std::regex("_(bits?|kb|mb|ms|total)(_|$)")));
    }
}

TEST(ToolReport, OfATableAsMetricsSaysWhatIsUnknown) {
    const std::string text = tablePrometheus(Read(MakeTable()), {{}, 5, "some hide"}, false);
    ExpectMetrics(text);
    EXPECT_EQ(std::regex_replace(text, std::regex("# [^\n]*\n|qxvrtp_(channel_)?"), ""),
              R"(table_present 1
table_damaged 0
table_hosts NaN
hidden_processes 5
table_handles 3
running{direction="send",channel="2",address="239.1.1.1",port="5000"} 1
running{direction="send",channel="15",address="ff15::1",port="5002"} 1
running{direction="receive",channel="3",address="192.0.2.8",port="5004"} 1
socket_open{direction="send",channel="2",address="239.1.1.1",port="5000"} 1
socket_open{direction="send",channel="15",address="ff15::1",port="5002"} 0
socket_open{direction="receive",channel="3",address="192.0.2.8",port="5004"} 1
rtp{direction="send",channel="2",address="239.1.1.1",port="5000"} 1
rtp{direction="send",channel="15",address="ff15::1",port="5002"} 0
rtp{direction="receive",channel="3",address="192.0.2.8",port="5004"} 0
bytes_per_second{direction="send",channel="2",address="239.1.1.1",port="5000"} 623456.75
bytes_per_second{direction="send",channel="15",address="ff15::1",port="5002"} 0.125
bytes_per_second{direction="receive",channel="3",address="192.0.2.8",port="5004"} 1000000.5
requested_bytes_per_second{direction="send",channel="2",address="239.1.1.1",port="5000"} 625000
requested_bytes_per_second{direction="send",channel="15",address="ff15::1",port="5002"} 15432
buffer_size_bytes{direction="send",channel="2",address="239.1.1.1",port="5000"} 156416
buffer_size_bytes{direction="send",channel="15",address="ff15::1",port="5002"} 65536
buffer_size_bytes{direction="receive",channel="3",address="192.0.2.8",port="5004"} 4194304
)");
    const std::string seen = tablePrometheus(Read(QXV_RTP_Table{}), kHosts, true);
    for (const char* line : {"\nqxvrtp_table_hosts 1\n", "\nqxvrtp_table_damaged 1\n"})
        EXPECT_NE(seen.find(line), std::string::npos) << seen;
    EXPECT_NE(tablePrometheus(Read(MakeTable()), {}, true).find("\nqxvrtp_table_hosts 0\n"),
              std::string::npos);
    ExpectMetrics(noTablePrometheus());
    EXPECT_NE(noTablePrometheus().find("\nqxvrtp_table_present 0\n"), std::string::npos);
}

TEST(ToolReport, OfTheScreenShowsEachRateAsABarOfItsHighest) {
    RateHistory history;
    QXV_RTP_Table table = MakeTable();
    for (int i = 0; i < 20; ++i) {  // 16 of them are shown
        table.Channels[0][2].BitrateActual = 1000000 * static_cast<uint32_t>(i);
        table.Channels[1][3].BitrateActual = i == 18 ? 1 : 8000000;
        history.add(Read(table));
    }
    EXPECT_EQ(screenText(Read(table), kHosts, history, false, false),
              R"(hosts: 4711 player, 12 old (its table was replaced)

dir     ch mode socket     asked  Mbit/s history          address
send     2 rtp  open       5.000  19.000 :---==++***%%### 239.1.1.1:5000
send    15 raw  pending    0.123   0.000 ################ [ff15::1]:5002
receive  3 raw  open           -   8.000 ##############.# 192.0.2.8:5004
)");
    history.clear();
    history.add(Read(table));
    EXPECT_EQ(history.bars(2, true), std::string(15, ' ') + "█");
    EXPECT_EQ(history.bars(3, true), std::string(16, ' '));
    const std::string idle = screenText(Read(QXV_RTP_Table{}), {}, history, true, true);
    EXPECT_EQ(std::count(idle.begin(), idle.end(), '\n'), 3 + 32);
    EXPECT_NE(idle.find("none alive\nthe table is damaged"), std::string::npos);
    EXPECT_NE(idle.find("\nreceive 15 raw  idle           -   0.000 "), std::string::npos) << idle;
}

TEST(ToolTable, IsNotBelieved) {
    std::ofstream("/tmp/short") << std::string(17679, '\0');
    EXPECT_EQ(symlink("short", "/tmp/link") + mkfifo("/tmp/fifo", 0600), 0);
    for (const char* path : {"/tmp/none", "/tmp/short", "/tmp/link", "/tmp/fifo", "/tmp"})
        EXPECT_THROW(readTable(path), Failure) << path;
    QXV_RTP_Table garbage;  // every byte but NUL, at changing places
    for (size_t i = 0; i < sizeof(garbage); ++i)
        reinterpret_cast<uint8_t*>(&garbage)[i] = static_cast<uint8_t>(1 + i % 255);
    const ChannelTable table = Read(garbage);
    ExpectMetrics(tablePrometheus(table, {}, true));
    EXPECT_EQ(json::parse(tableJson(table, {}, true))["channels"].size(), 32u);
    for (const char c : tableText(table, {}, true, std::nullopt))
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7F)) << static_cast<int>(c);
}

// A directory that looks like /proc, with these processes: their roots and what they have mapped.
TableHosts Find(const std::string& pidNamespace,
                const std::vector<std::array<const char*, 3>>& processes) {
    namespace fs = std::filesystem;
    fs::remove_all("/tmp/proc");
    for (const auto& [pid, root, mapped] : processes) {
        const fs::path process = fs::path("/tmp/proc") / pid;
        fs::create_directories(process);
        fs::create_directories(root);
        fs::create_directory_symlink(root, process / "root");
        std::ofstream(process / "comm") << "host " << pid << "\n";
        std::ofstream(process / "maps")
            << "7f0-7f5 rw-s 0 00:1b 9 \n7f5-7f9 rw-s 0 00:1b 9  " << mapped << "\n";
    }
    fs::create_directories("/tmp/proc/self/ns");
    fs::create_symlink(pidNamespace, "/tmp/proc/self/ns/pid");
    return findHosts("/tmp/jail/run/TABLE", "/tmp/proc");
}

TEST(ToolHosts, AreFoundInTheirRootsAndUnknownWhereOneMayHide) {
    const std::string first = "pid:[4026531836]";
    std::filesystem::create_directories("/tmp/jail/run");
    std::filesystem::create_directories("/tmp/other/run");
    const TableHosts found = Find(
        first, {
                   {"1", "/", "/usr/lib/libc.so"},
                   {"21", "/", "/tmp/jail/run/TABLE"},
                   {"22", "/tmp/jail", "/tmp/jail/run/TABLE"},  // by a name that this process sees
                   {"23", "/tmp/jail", "/run/TABLE"},           // by its own
                   {"24", "/tmp/other", "/run/TABLE"},
                   {"25", "/", "/tmp/jail/run/TABLE (deleted)"},
               });
    EXPECT_EQ(hostsText(found),
              "21 host\\x2021, 22 host\\x2022, 23 host\\x2023, "
              "25 host\\x2025 (its table was replaced)");
    EXPECT_EQ(found.current(), 3u);
    EXPECT_EQ(hostsText(Find(first, {{"1", "/", "/a"}})), "none alive");
    EXPECT_EQ(hostsText(Find(first, {{"2", "/", "/a"}})),
              "unknown: /proc hides the processes of other users");
    EXPECT_EQ(hostsText(Find("pid:[1]", {{"1", "/", "/tmp/jail/run/TABLE (deleted)"}})),
              "1 host\\x201 (its table was replaced), unknown: processes outside of this PID "
              "namespace are not seen");
    EXPECT_EQ(hostsText(findHosts("/tmp/table", "/tmp/none")),
              "unknown: no /proc tells which processes there are");
    EXPECT_EQ(hostsText({{}, 5, "5 hide"}), "unknown: 5 hide");
    const json unknown = json::parse(tableJson(Read(MakeTable()), {{}, 5, "5 hide"}, false));
    EXPECT_EQ(unknown["alive"].dump() + unknown["alive_unknown_because"].dump(), "null\"5 hide\"");
    EXPECT_EQ(json::parse(tableJson(Read(MakeTable()), {}, false))["alive"], false);
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

// 50 datagrams of one programme, 10 ms apart: video, of which a packet is missing, with a PCR in
// every second datagram, and scrambled audio. Every second PCR comes 1 ms late; two of these are
// 5 ms ahead by their own value.
StreamReport AnalyzeMade() {
    StreamAnalyzer analyzer;
    const std::string tables =
        Packets("\0\0"s, "\0"s, "\0\1\1\0\0\0\5\x01\0"s) +
        Packets("\1\0"s, "\2", "\0\5\1\0\0\1\1\0\0\x1B\1\1\0\0\x0F\1\2\0\0"s) +
        Packets("\0\x11"s, "\x42", "\0\1\1\0\0\0\1\xFF\0\5\0\0\x0A\x48\x08\1\2Me\3One"s);
    uint8_t video = 0;
    for (int i = 0; i < 50; ++i) {
        std::string datagram = tables;
        for (const int at : {0, 1, 2})
            datagram[static_cast<size_t>(at) * 188 + 3] = static_cast<char>(0x10 | (i & 0xF));
        const bool clocked = i % 2 == 0;
        if (clocked) {
            const uint64_t pcr = static_cast<uint64_t>(i) * 10 * 90 + (i % 20 == 10 ? 450 : 0);
            datagram += "\x47\1\1\x20\xB7\x10"s;
            for (const int shift : {25, 17, 9, 1})
                datagram += static_cast<char>(pcr >> shift);
            datagram += static_cast<char>((pcr & 1) << 7 | 0x7E) + "\0"s;
            datagram.resize(4 * 188, '\xFF');
        }
        for (int packet = 0; packet < (clocked ? 2 : 3); ++packet) {
            video = static_cast<uint8_t>(video + (i == 30 && packet == 1 ? 2 : 1));
            datagram +=
                "\x47\1\1"s + static_cast<char>(0x10 | (video & 0xF)) + std::string(184, 'v');
        }
        datagram += "\x47\1\2"s + static_cast<char>(0x90 | (i & 0xF));
        datagram.append(184, 'a');
        const std::vector<uint8_t> bytes(datagram.begin(), datagram.end());
        analyzer.feed(bytes, 1s + i * 10ms + (i % 4 == 2 ? 1ms : 0ms));
    }
    return analyzer.report();
}

TEST(ToolReport, OfAStreamIsThatToTheLetter) {
    const ProbeReport report({"rtp://239.1.1.1:5000", true, 51, 2}, AnalyzeMade());
    EXPECT_EQ(probeText(report), R"(rtp://239.1.1.1:5000
RTP, packets of 188 bytes, 350 packets in 51 datagrams, 0.49 s
bitrate  1.053 Mbit/s by arrival, 1.053 Mbit/s by PCR
errors   continuity 1, sync 0, transport 0, section 0
lost     2 datagrams for which this process was too slow

programme  PMT    PCR    PIDs  name (provider)
        5  256    257       2  One (Me)

  PID  type                       packets         bitrate  cc errors  
    0  PAT                             50    150.4 kbit/s          0  
   17  SDT                             50    150.4 kbit/s          0  
  256  PMT                             50    150.4 kbit/s          0  
  257  video H.264                    150    451.2 kbit/s          1  PCR
  258  audio AAC                       50    150.4 kbit/s          0  scrambled

  PCR    count   interval ms (min, max)   jitter ms (peak-peak, RMS)   cuts
  257       25        15.00       25.00              5.00       1.29      0
)");
    const json object = json::parse(probeJson(report));
    EXPECT_EQ(object, json::parse(R"({"url": "rtp://239.1.1.1:5000",
        "encapsulation": "rtp", "packet_size": 188, "seconds": 0.49, "datagrams": 51,
        "datagrams_dropped": 2, "bytes": 65800, "packets": 350, "bitrate_arrival_bps": 1052800,
        "bitrate_pcr_bps": 1052800, "transport_stream_id": 1, "continuity_errors": 1,
        "sync_losses": 0, "transport_errors": 0, "section_errors": 0,
        "programmes": [{"number": 5, "name": "One", "provider": "Me", "service_type": 1,
          "pmt_pid": 256, "pcr_pid": 257, "streams": [{"pid": 257, "stream_type": 27},
                                                      {"pid": 258, "stream_type": 15}]}],
        "pids": [
          {"pid": 0, "type": "PAT", "codec": null, "language": null, "programmes": [],
           "pcr": false, "packets": 50, "scrambled_packets": 0, "bitrate_bps": 150400,
           "continuity_errors": 0},
          {"pid": 17, "type": "SDT", "codec": null, "language": null, "programmes": [],
           "pcr": false, "packets": 50, "scrambled_packets": 0, "bitrate_bps": 150400,
           "continuity_errors": 0},
          {"pid": 256, "type": "PMT", "codec": null, "language": null, "programmes": [5],
           "pcr": false, "packets": 50, "scrambled_packets": 0, "bitrate_bps": 150400,
           "continuity_errors": 0},
          {"pid": 257, "type": "video", "codec": "H.264", "language": null, "programmes": [5],
           "pcr": true, "packets": 150, "scrambled_packets": 0, "bitrate_bps": 451200,
           "continuity_errors": 1},
          {"pid": 258, "type": "audio", "codec": "AAC", "language": null, "programmes": [5],
           "pcr": false, "packets": 50, "scrambled_packets": 50, "bitrate_bps": 150400,
           "continuity_errors": 0}],
        "pcrs": [{"pid": 257, "count": 25, "discontinuities": 0, "interval_min_ms": 15.0,
                  "interval_max_ms": 25.0, "jitter_peak_to_peak_ms": 5.0,
                  "jitter_rms_ms": 1.294}],
        "left_out": {"programmes": 0, "streams": 0, "pids": 0}})"))
        << probeJson(report);
}

TEST(ToolReport, OfNothingIsAnObjectToo) {
    const json object = json::parse(probeJson({{"udp://@:5000", false, 0, 0}, {}}));
    EXPECT_EQ(object["packets"], 0);
    EXPECT_EQ(object["encapsulation"].dump() + object["packet_size"].dump(), "nullnull");
    EXPECT_EQ(object.size(), json::parse(probeJson({{"", false, 1, 0}, AnalyzeMade()})).size());
}

TEST(ToolReport, OfAHugeStreamIsCutAndSaysSo) {
    StreamReport huge;
    huge.bytes = huge.packets = 1;
    for (uint16_t i = 0; i < 8192; ++i) {
        const ElementaryStream stream{i, 27, "video", "H.264", "eng"};
        const Service service{1, std::string(120, 'n'), std::string(120, 'p')};
        if (i < 512)
            huge.programmes.push_back({i, i, i, service, std::vector(200, stream)});
        huge.pids.push_back(
            {i, "video", "H.264", "eng", std::vector<uint16_t>(512, 1), true, 1, 0, 0, 1});
        huge.pcrs.push_back({i, 1, 0, 1.0 / 3, 2.0 / 3, 1e9 / 7, 1e6 / 7});
    }
    const ProbeReport report({"udp://@:5000", false, 1, 0}, huge);
    const std::string text = probeText(report), object = probeJson(report);
    EXPECT_LT(text.size(), 200'000u);
    EXPECT_LT(object.size(), 1'500'000u);
    EXPECT_NE(text.find("\nleft out: 256 programmes, 47104 streams of programmes, 7168 PIDs\n"),
              std::string::npos);
    EXPECT_EQ(json::parse(object)["left_out"],
              json::parse(R"({"programmes": 256, "streams": 47104, "pids": 7168})"));
    EXPECT_FALSE(std::regex_search(object, std::regex("\\.[0-9]{4}"))) << "digits of noise";
    EXPECT_FALSE(std::regex_search(text, std::regex("\n[^\n]{81}")));
}

TEST(ToolText, NamesBringNothingInvisibleToATerminal) {
    const std::string names[] = {"\x1B[2J", "\x7F",       "\u009B1m",   "\u00AD",
                                 "\u061C",  "\u180E",     "\u200B",     "\u202E",
                                 "\u2066",  "\uFE0F",     "\uFEFF",     "\uFFF9",
                                 "\uFFFB",  "\U000E0001", "\U000E0041", "\U000E007F"};
    for (const std::string& name : names) {
        const std::string shown = name[0] == '\x1B'                    ? "[2J"
                                  : name.size() == 4 && name[3] == 'm' ? "1m"
                                                                       : "";
        EXPECT_EQ(printable("ä" + name + "日"), "ä " + shown + "日") << json(name);
        std::string text = "\x15ä" + name + "日";
        EXPECT_EQ(dvbText({reinterpret_cast<const uint8_t*>(text.data()), text.size()}),
                  "ä" + shown + "日")
            << json(name);
    }
    EXPECT_EQ(printable("a\xFF\xC3(\xE2\x82\xC0\x80\xF8\n\xE2\x82"), "a?\?(????? ?\?");
    EXPECT_EQ(printable("\xE0\x80\x9B"), " ") << "ESC, written too long";
    EXPECT_EQ(shorten("äöüß", 4) + shorten("äöüßa", 4) + cutLines("äöü\nx", 2), "äöüßä...äö\nx");
}

}  // namespace
