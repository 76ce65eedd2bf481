// What the tool prints about tables, hosts and streams, made from data in which no two numbers are
// the same.
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
    for (uint32_t i = 0; i < 2 * QXV_RTP_CHANNELS; ++i)
        table.Channels[i / 16][i % 16] = {0, i / 16, i % 16, 0, 0, 0, 0, 0, {}};
    table.Channels[0][2] = {
        0, 0, 2, 5000000, 4987654, 156416, 0, 0, {"192.0.2.7", "239.1.1.1", 1, 1, 9, 0, 5000, 0}};
    table.Channels[0][15] = {
        0, 0, 15, 123456, 1, 65536, 1, 0, {"::", "ff15::1", 1, 0, 22, 0, 5002, 0}};
    table.Channels[1][3] = {
        0, 1, 3, 0, 8000004, 4194304, 0, 0, {"192.0.2.8", "0.0.0.0", 0, 0, 10, 0, 5004, 0}};
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
    json object = json::parse(tableJson(table, kHosts, false));
    const json channels = std::exchange(object["channels"], nullptr);
    EXPECT_EQ(object, json::parse(R"({"path": "/tmp/table", "owner": "user", "damaged": false,
        "handles": 3, "alive": true, "alive_unknown_because": null, "hidden_processes": 5,
        "hosts": [{"pid": 4711, "command": "player", "replaced": false},
                  {"pid": 12, "command": "old", "replaced": true}], "channels": null})"));
    EXPECT_EQ(channels[0], json::parse(R"({"direction": "send", "channel": 2, "running": true,
        "mode": "rtp", "ttl": 9, "address": "239.1.1.1", "port": 5000, "socket_open": true,
        "local_address": "192.0.2.7", "bitrate_bps": 4987654, "asked_bitrate_bps": 5000000,
        "buffer_bytes": 156416})"));
    EXPECT_EQ(channels[1]["local_address"].dump() + channels[1]["socket_open"].dump(), "nullfalse");
    EXPECT_EQ(channels[2]["asked_bitrate_bps"].dump() + channels[2]["mode"].dump(), "null\"raw\"");
}

// The families and their values. The text is in the format, with names and base units as the
// format's own checker wants them.
std::string Metrics(const std::string& text) {
    const std::regex line(
        "# HELP (qxvrtp_[a-z_]+) [A-Z][^\n]*\\.\n# TYPE (qxvrtp_[a-z_]+) gauge\n|"
        "(qxvrtp_[a-z_]+)(\\{([a-z]+=\"([^\"\\\\\n]|\\\\[\"\\\\n])*\",?)*\\})? ([0-9.]+|NaN)\n");
    std::smatch found;
    std::string family, values;
    for (std::string rest = text; !rest.empty(); rest = found.suffix()) {
        if (!std::regex_search(rest, found, line, std::regex_constants::match_continuous))
            return "wrong: " + rest;
        if (found[1].matched)
            family = found[1];
        values += found[1].matched ? "\n" + family.substr(7) : " " + found[7].str();
        EXPECT_EQ(found[1].matched ? found[2] : found[3], family);
        EXPECT_FALSE(std::regex_search(family, std::regex("_(bits?|kb|mb|ms|total)(_|$)")));
    }
    return values + "\n";
}

TEST(ToolReport, OfATableAsMetricsSaysWhatIsUnknown) {
    const ChannelTable table = Read(MakeTable());
    const std::string text = tablePrometheus(table, {{}, 5, "some hide"}, false);
    EXPECT_EQ(Metrics(text), R"(
table_present 1
table_damaged 0
table_hosts NaN
hidden_processes 5
table_handles 3
channel_running 1 1 1
channel_socket_open 1 0 1
channel_rtp 1 0 0
channel_bytes_per_second 623456.75 0.125 1000000.5
channel_requested_bytes_per_second 625000 15432
channel_buffer_size_bytes 156416 65536 4194304
)");
    const std::string requested = R"(_requested_bytes_per_second{direction="send",channel=)";
    for (const char* labels : {R"("2",address="239.1.1.1",port="5000"} 625000)",
                               R"("15",address="ff15::1",port="5002"} 15432)"})
        EXPECT_NE(text.find(requested + labels), std::string::npos) << text;
    const std::string damaged = Metrics(tablePrometheus(Read(QXV_RTP_Table{}), kHosts, true));
    EXPECT_TRUE(damaged.starts_with("\ntable_present 1\ntable_damaged 1\ntable_hosts 1\n"));
    EXPECT_NE(Metrics(tablePrometheus(table, {}, true)).find("_hosts 0\n"), std::string::npos);
    EXPECT_TRUE(Metrics(noTablePrometheus()).starts_with("\ntable_present 0\n"));
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
    EXPECT_TRUE(Metrics(tablePrometheus(table, {}, true)).starts_with("\ntable_present 1"));
    EXPECT_EQ(json::parse(tableJson(table, {}, true))["channels"].size(), 32u);
    for (const char c : tableText(table, {}, true, std::nullopt))
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7F)) << static_cast<int>(c);
}

// A directory that looks like /proc, with these processes: their roots and what they have mapped.
std::string Hosts(const std::string& pidNamespace,
                  const std::vector<std::array<const char*, 3>>& processes) {
    std::filesystem::remove_all("/tmp/proc");
    for (const auto& [pid, root, mapped] : processes) {
        const std::filesystem::path process = std::filesystem::path("/tmp/proc") / pid;
        std::filesystem::create_directories(process);
        std::filesystem::create_directory_symlink(root, process / "root");
        std::ofstream(process / "comm") << "host " << pid << "\n";
        std::ofstream(process / "maps")
            << "7f0-7f5 rw-s 0 00:1b 9 \n7f5-7f9 rw-s 0 00:1b 9  " << mapped << "\n";
    }
    std::filesystem::create_directories("/tmp/proc/self/ns");
    std::filesystem::create_symlink(pidNamespace, "/tmp/proc/self/ns/pid");
    return hostsText(findHosts("/tmp/jail/run/TABLE", "/tmp/proc"));
}

TEST(ToolHosts, AreFoundInTheirRootsAndUnknownWhereOneMayHide) {
    const std::string first = "pid:[4026531836]";
    std::filesystem::create_directories("/tmp/jail/run");
    std::filesystem::create_directories("/tmp/other/run");
    EXPECT_EQ(
        Hosts(first, {{"1", "/", "/usr/lib/libc.so"},
                      {"21", "/", "/tmp/jail/run/TABLE"},
                      {"22", "/tmp/jail", "/tmp/jail/run/TABLE"},  // as this process sees it
                      {"23", "/tmp/jail", "/run/TABLE"},           // as it sees itself
                      {"24", "/tmp/other", "/run/TABLE"},
                      {"25", "/", "/tmp/jail/run/TABLE (deleted)"}}),
        "21 host\\x2021, 22 host\\x2022, 23 host\\x2023, 25 host\\x2025 (its table was replaced)");
    EXPECT_EQ(Hosts(first, {{"1", "/", "/a"}}), "none alive");
    EXPECT_EQ(Hosts(first, {{"2", "/", "/a"}}),
              "unknown: /proc hides the processes of other users");
    EXPECT_EQ(Hosts("pid:[1]", {{"1", "/", "/tmp/jail/run/TABLE (deleted)"}}),
              "1 host\\x201 (its table was replaced), unknown: processes outside of this PID "
              "namespace are not seen");
    EXPECT_EQ(hostsText(findHosts("/tmp/table", "/tmp/none")),
              "unknown: no /proc tells which processes there are");
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
    const Service service = made.programmes.at(0).service.value();
    EXPECT_EQ(service.provider + service.name, "ü€?\uFFFDП[!");
    EXPECT_EQ(made.pids[3].kind + made.pids[3].codec + made.pids[3].language, "audioAC-3pol");
    EXPECT_EQ(made.pids[3].continuityErrors, 1u);
    for (char& byte : pmt) {  // lengths that lead beyond the section, whose CRC is right
        const char was = std::exchange(byte, '\xFF');
        const StreamReport damaged = Analyze(pat + Packets("\1\0"s, "\2", pmt) + stream);
        EXPECT_EQ(damaged.programmes.at(0).streams.size(), 2u) << "that of the good one";
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
            video = static_cast<uint8_t>((video + (i == 30 && packet == 1 ? 2 : 1)) & 0xF);
            datagram.append("\x47\1\1").append(1, static_cast<char>(0x10 | video)).append(184, 'v');
        }
        datagram.append("\x47\1\2").append(1, static_cast<char>(0x90 | (i & 0xF))).append(184, 'a');
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
    json object = json::parse(probeJson(report));
    const json empty = json::parse(probeJson({{"udp://@:5000", false, 0, 0}, {}}));
    EXPECT_EQ(empty["encapsulation"].dump() + empty["packet_size"].dump(), "nullnull");
    EXPECT_EQ(empty.size(), object.size());
    const json pids = std::exchange(object["pids"], nullptr);
    EXPECT_EQ(object, json::parse(R"({"url": "rtp://239.1.1.1:5000", "transport_stream_id": 1,
        "encapsulation": "rtp", "packet_size": 188, "seconds": 0.49, "datagrams": 51, "pids": null,
        "datagrams_dropped": 2, "bytes": 65800, "bitrate_arrival_bps": 1052800, "packets": 350,
        "bitrate_pcr_bps": 1052800, "continuity_errors": 1, "sync_losses": 0, "section_errors": 0,
        "transport_errors": 0, "left_out": {"programmes": 0, "streams": 0, "pids": 0},
        "programmes": [{"number": 5, "name": "One", "provider": "Me", "service_type": 1,
          "pmt_pid": 256, "pcr_pid": 257,
          "streams": [{"pid": 257, "stream_type": 27}, {"pid": 258, "stream_type": 15}]}],
        "pcrs": [{"pid": 257, "count": 25, "discontinuities": 0, "interval_min_ms": 15.0,
          "interval_max_ms": 25.0, "jitter_peak_to_peak_ms": 5.0, "jitter_rms_ms": 1.294}]})"))
        << object;
    EXPECT_EQ(pids[3], json::parse(R"({"pid": 257, "type": "video", "codec": "H.264", "pcr": true,
        "language": null, "programmes": [5], "packets": 150, "scrambled_packets": 0,
        "bitrate_bps": 451200, "continuity_errors": 1})"));
    EXPECT_EQ(pids[0]["codec"].dump() + pids[4]["scrambled_packets"].dump(), "null50");
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
    for (const std::string name :
         {"\x1B[2J", "\x7F", "\u009B1m", "\u00AD", "\u061C", "\u180E", "\u200B", "\u202E", "\u2066",
          "\uFE0F", "\uFEFF", "\uFFF9", "\uFFFB", "\U000E0001", "\U000E0041", "\U000E007F"}) {
        const std::string seen = name[0] == '\x1B' ? "[2J" : name.ends_with('m') ? "1m" : "";
        EXPECT_EQ(printable("ä" + name + "日"), "ä " + seen + "日") << json(name);
        const std::string dvb = "\x15ä" + name + "日";
        EXPECT_EQ(dvbText({reinterpret_cast<const uint8_t*>(dvb.data()), dvb.size()}),
                  "ä" + seen + "日");
    }
    EXPECT_EQ(printable("a\xFF\xC3(\xE2\x82\xC0\x80\xF8\n\xE2\x82"), "a?\?(????? ?\?");
    EXPECT_EQ(printable("\xE0\x80\x9B"), " ") << "ESC, written too long";
    EXPECT_EQ(shorten("äöüß", 4) + shorten("äöüßa", 4) + cutLines("äöü\nx", 2), "äöüßä...äö\nx");
}

}  // namespace
