// What the tool prints about tables, hosts and streams, made from data in which no two numbers are
// the same.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>

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
#include "reports/StatesJson.h"
#include "reports/StreamFindings.h"
#include "reports/Text.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using namespace std::string_literals;

// Four running channels among 32: a sender to a group, one whose socket is not open, a receiver,
// and one with an address that could break each of the formats.
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
    table.Channels[1][9] = {
        0, 1, 9, 0, 7, 65536, 0, 0, {" #\t\\\"", "\x1B\"a\\n\n\xFF", 0, 7, 0, 0, 5006, 0}};
    return table;
}

ChannelTable Read(const QXV_RTP_Table& table) {
    std::ofstream("/tmp/table", std::ios::binary)
        .write(reinterpret_cast<const char*>(&table), sizeof(table));
    ChannelTable read = readTable("/tmp/table");
    read.owner = "user";
    return read;
}

std::string Screen(const Machine& machine, const RateHistory& history, bool all) {
    return screenPage(screenLines(machine, history, all, all), 0, 99).text;
}

Host MakeHost(pid_t pid, const std::string& commandLine, const ChannelTable& table) {
    return {{pid, "a\\\"b", commandLine, "user", 1700000000 + pid, 0}, {}, table};
}

// A relay with two inputs, of which the one on air has two paths.
StreamState MakeState(const std::string& name) {
    const InputState main{"rtp://\"a\\+b",
                          InputHealth::kOnAir,
                          1001,
                          8000000,
                          3,
                          4,
                          InputState::Repair{5, 6, 7, 8},
                          {{"a", 11, 12, 13, 14.5}, {"b", 15, 16, 17, 0.25}}};
    const InputState spare{"udp://c", InputHealth::kNoSignal, 2001, 16};
    return {"relay",
            name,
            3723.5,
            3001,
            24,
            {main, spare},
            {{"udp://d", true, 31, 32, 33}, {"file.ts", false, 34, 35, 36}},
            37};
}

// Two hosts, of which the older one shares its table, that has been replaced; the other one has the
// file. The younger one tells of a stream.
Machine MakeMachine(const QXV_RTP_Table& table = MakeTable()) {
    Machine machine;
    machine.file = Read(table);
    machine.hosts = {MakeHost(12, "old --loop", Read({})), MakeHost(4711, "player", *machine.file)};
    machine.hosts[0].sharedWith = {13, 14};
    machine.hosts[0].table.id = {1, 1};
    machine.hosts[0].table.replaced = true;
    machine.processes = {{machine.hosts[1], {{}, 1700005000, 2, {MakeState("one")}}}};
    return machine;
}

TEST(ToolReport, OfAMachineIsThatToTheLetter) {
    setenv("TZ", "UTC", 1);
    Machine hidden = MakeMachine();
    hidden.hosts.clear();
    hidden.processes.clear();
    hidden.blindness = "some hide";
    hidden.hidden = 5;
    Machine ended = hidden;
    ended.blindness = "";
    const std::pair<std::string, Machine> cases[] = {
        {"hosts", MakeMachine()}, {"hidden", hidden}, {"ended", ended}};
    for (const auto& [name, machine] : cases) {
        RateHistory history;
        history.add(machine);
        ExpectGolden(name + ".txt", statusText(machine, false, std::nullopt));
        ExpectGolden(name + ".json", statusJson(machine, false));
        ExpectGolden(name + ".prom", statusPrometheus(machine, false));
        ExpectGolden(name + ".screen", Screen(machine, history, false));
    }
    ExpectGolden("all.txt", statusText(ended, true, 30));
}

TEST(ToolReport, OfTheScreenShowsEachRateAsABarOfItsHighest) {
    RateHistory history;
    QXV_RTP_Table table = MakeTable();
    for (int i = 0; i < 20; ++i) {  // 16 of them are shown
        table.Channels[0][2].BitrateActual = 1000000 * static_cast<uint32_t>(i);
        table.Channels[1][3].BitrateActual = i == 18 ? 1 : 8000000;
        history.add(MakeMachine(table));
    }
    ExpectGolden("bars.screen", Screen(MakeMachine(table), history, false));
    history.add({});
    history.add(MakeMachine(table));
    ExpectGolden("all.screen", Screen(MakeMachine(table), history, true));
}

TEST(ToolReport, OfTheScreenComesInPagesThatLackNothingAndBeginWithAHeading) {
    std::vector<ScreenLine> lines;
    for (size_t i = 0; i < 66; ++i)
        lines.push_back({fmt::format("{} {}", i % 33 == 0 ? "host" : "line", i), i / 33 * 33});
    for (const size_t rows : {0u, 4u, 24u, 66u, 67u}) {
        size_t next = 0;  // the first line that no page has had
        ScreenPage page{0, 1, ""};
        for (size_t number = 0; number < page.count; ++number) {
            page = screenPage(lines, number, rows);
            std::istringstream text(page.text);
            std::string line;
            std::getline(text, line);  // the columns' names
            for (size_t i = 0; std::getline(text, line); ++i) {
                EXPECT_TRUE(i > 0 || line.starts_with("host ")) << line;
                next += next < lines.size() && line == lines[next].text ? 1 : 0;
            }
            EXPECT_LE(std::count(page.text.begin(), page.text.end(), '\n'),
                      static_cast<int>(std::max<size_t>(rows, 3)));
        }
        EXPECT_EQ(next, lines.size()) << rows;
        EXPECT_EQ(screenPage(lines, 1000, rows).number, page.number);
    }
}

TEST(ToolTable, IsNotBelieved) {
    std::ofstream("/tmp/short") << std::string(17679, '\0');
    Read(MakeTable());
    EXPECT_EQ(symlink("table", "/tmp/link") + mkfifo("/tmp/fifo", 0600), 0);
    for (const char* path : {"/tmp/none", "/tmp/short", "/tmp/link", "/tmp/fifo", "/tmp"})
        EXPECT_THROW(readTable(path), Failure) << path;
    QXV_RTP_Table garbage;  // every byte but NUL, at changing places
    for (size_t i = 0; i < sizeof(garbage); ++i)
        reinterpret_cast<uint8_t*>(&garbage)[i] = static_cast<uint8_t>(1 + i % 255);
    Machine machine;
    machine.file = Read(garbage);
    machine.blindness = "some hide";
    EXPECT_EQ(json::parse(statusJson(machine, true))["channels"].size(), 32u);
    for (const std::string& text :
         {statusText(machine, true, std::nullopt), statusPrometheus(machine, true)})
        for (const char c : text)
            EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7F)) << static_cast<int>(c);
}

// The only host that this process is.
std::vector<Host> ThisHost() {
    return HostFinder({"", getpid()}).look().hosts;
}

std::string PathOfTable(const std::string& folder) {
    const std::string path = "/tmp/hosts/" + folder + QXV_RTP_TABLE_PATH;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    return path;
}

TEST(ToolHosts, HaveATableOpenForWritingAndNothingElseThatHasItsName) {
    Read(MakeTable());
    const std::string fifo = PathOfTable("fifo"), empty = PathOfTable("empty");
    const std::string path = PathOfTable("host"), later = PathOfTable("later");
    std::ofstream(empty) << "none";
    std::filesystem::copy_file("/tmp/table", path);
    std::filesystem::copy_file("/tmp/table", path + "x");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::vector<int> files;
    for (const std::string& other : {fifo, empty, path + "x", "/tmp/table"s})
        files.push_back(open(other.c_str(), O_RDWR | O_CLOEXEC));
    files.push_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));  // watches it
    EXPECT_TRUE(ThisHost().empty());

    files.push_back(open(path.c_str(), O_RDWR | O_CLOEXEC));
    const pid_t child = Fork([] { return pause(); });
    HostFinder finder({path, std::nullopt});
    const Machine machine = finder.look();
    ASSERT_EQ(machine.hosts.size(), 1u) << "a child has no channels of its own";
    EXPECT_EQ(machine.hosts[0].pid, getpid());
    EXPECT_EQ(machine.hosts[0].sharedWith, std::vector{child});
    EXPECT_TRUE(machine.isFileLive());
    EXPECT_EQ(machine.hosts[0].table.channels[2].measured_bps, 4987654u);
    EXPECT_NEAR(static_cast<double>(machine.hosts[0].started), time(nullptr), 300);
    kill(child, SIGKILL);
    Reap(child);
    EXPECT_TRUE(finder.look().hosts.at(0).sharedWith.empty());

    unlink(path.c_str());
    EXPECT_TRUE(ThisHost().at(0).table.replaced);
    EXPECT_FALSE(finder.look().isFileLive()) << "there is none any more";
    // A module that is unloaded and loaded again leaves the first table open.
    std::filesystem::copy_file("/tmp/table", later);
    files.push_back(open(later.c_str(), O_RDWR | O_CLOEXEC));
    utimensat(AT_FDCWD, later.c_str(), nullptr, 0);
    EXPECT_EQ(ThisHost().at(0).table.path, later);
    for (const int file : files)
        EXPECT_EQ(close(file), 0);
    EXPECT_EQ(HostFinder({"", getpid()}).look().trouble,
              fmt::format("process {} is no host, or has ended", getpid()));
}

// What this process publishes, as others find it.
std::optional<PublishedStates> Published() {
    const auto processes = HostFinder({"", getpid()}).look().processes;
    return processes.empty() ? std::nullopt : std::optional(processes[0].states);
}

TEST(ToolStates, ArePublishedAsAWholeAndWhatDoesNotFitIsCounted) {
    StatePublisher publisher;
    publisher.publish({});
    EXPECT_FALSE(Published()) << "there is nothing to tell";
    publisher.publish({MakeState("long"), MakeState("name")});
    publisher.publish({MakeState("one"), MakeState("one"), MakeState("\xFF\033[2J\n")});
    const auto states = Published();
    ASSERT_TRUE(states);
    EXPECT_NEAR(static_cast<double>(states->updated), time(nullptr), 300);
    ASSERT_EQ(states->streams.size(), 3u);
    EXPECT_EQ(states->streams[1].name, "one (2)") << "metrics have to differ";
    EXPECT_EQ(states->streams[2].name, "\uFFFD [2J ");
    EXPECT_EQ(stateJson(states->streams[0]), stateJson(MakeState("one")));
    publisher.publish(std::vector(1000, MakeState(std::string(1000, 'x'))));
    EXPECT_EQ(Published()->streams.size() + Published()->leftOut, 1000u);
    EXPECT_GT(Published()->streams.size(), 50u);
    publisher.publish(std::vector(65, MakeState("short")));
    EXPECT_EQ(Published()->leftOut, 1u);
}

TEST(ToolStates, OfAnotherProcessAreNotBelieved) {
    const std::string good = "[" + stateJson(MakeState("one")).dump() + "]";
    const auto check = [](const std::string& text) {
        Machine machine;
        machine.processes = {{{}, {{}, 0, 0, parseStates(text)}}};
        EXPECT_EQ(json::parse(statusJson(machine, true))["processes"].size(), 1u);
        for (const char c :
             statusText(machine, true, std::nullopt) + statusPrometheus(machine, true))
            EXPECT_TRUE(c == '\n' || (c >= ' ' && c != 0x7F) || c < 0) << static_cast<int>(c);
    };
    for (const std::string text :
         {"", "[", "null", "[1, [], {}, \"a\"]", "[{\"name\": 1, \"inputs\": {\"url\": []}}]",
          "[{\"name\": \"\\u001b\\u0000\\u202e\", \"seconds\": 1e999, \"bytes\": -1}]"})
        check(text);
    check(std::string(200000, '['));
    uint32_t seed = 1;
    for (int i = 0; i < 3000; ++i) {
        std::string text = good;
        for (int change = 0; change < 1 + i % 7; ++change) {
            seed = seed * 1664525 + 1013904223;
            text[(seed >> 8) % text.size()] =
                "{}[],:\"\\-e\n\x1b\xff"
                "09"[seed % 15];
        }
        check(text);
    }
    // The file's own header, of which the last one is right, and lists without end.
    const FileDescriptor file(memfd_create("qxvrtp_streams", MFD_CLOEXEC));
    const std::string whole = "[{\"name\": \"one\"}]";
    const uint32_t headers[][5] = {
        {0x53565851, 1, 2, 0, 1u << 31}, {0x53565851, 1, 2, 0, 100}, {0x53565851, 1, 3, 0, 17},
        {0x53565851, 2, 2, 0, 17},       {1, 1, 2, 0, 17},           {0x53565851, 1, 2, 0, 17}};
    for (const auto& header : headers) {
        ASSERT_EQ(pwrite(file.get(), header, sizeof(header), 0), 20);
        ASSERT_EQ(pwrite(file.get(), whole.data(), whole.size(), 20), 17);
        EXPECT_EQ(Published().has_value(), &header == std::end(headers) - 1) << header[1];
    }
    for (const time_t when : {time_t{1} << 60, -(time_t{1} << 60)}) {
        const timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(futimens(file.get(), times), 0);
        EXPECT_TRUE(json::accept(statusJson(HostFinder({"", getpid()}).look(), true)));
    }
    std::string many = "[";
    for (int i = 0; i < 5000; ++i)
        many += "{\"inputs\":[0]},";
    EXPECT_EQ(parseStates(many + "0]").size(), 64u);
}

std::string Blindness(const std::string& pidNamespace, const std::string& pid) {
    std::filesystem::remove_all("/tmp/proc");
    std::filesystem::create_directories("/tmp/proc/" + pid);
    std::filesystem::create_directories("/tmp/proc/self/ns");
    std::filesystem::create_symlink(pidNamespace, "/tmp/proc/self/ns/pid");
    return HostFinder({}, "/tmp/proc").look().blindness;
}

TEST(ToolHosts, MayBeHiddenAndThenThatIsSaid) {
    const std::string first = "pid:[4026531836]";
    EXPECT_EQ(Blindness(first, "1"), "");
    EXPECT_EQ(Blindness(first, "2"), "/proc hides the processes of other users");
    EXPECT_EQ(Blindness("pid:[1]", "1"), "processes outside of this PID namespace are not seen");
    EXPECT_EQ(HostFinder({}, "/tmp/none").look().blindness,
              "no /proc tells which processes there are");
}

StreamReport Analyze(const std::string& stream) {
    StreamAnalyzer analyzer;
    for (size_t at = 0; at + 1316 <= stream.size(); at += 1316)  // at 800 kbit/s
        analyzer.feed(BytesOf(stream).subspan(at, 1316), std::chrono::microseconds(at * 10));
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
    for (uint8_t i = 0; i < 10; ++i)
        stream += Packet({.pid = 0x102, .counter = static_cast<uint8_t>(i + i / 5)});
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
    uint8_t video = 0;
    for (uint8_t i = 0; i < 50; ++i) {
        std::string datagram =
            Packets("\0\0"s, "\0"s, "\0\1\1\0\0\0\5\x01\0"s, i) +
            Packets("\1\0"s, "\2", "\0\5\1\0\0\1\1\0\0\x1B\1\1\0\0\x0F\1\2\0\0"s, i) +
            Packets("\0\x11"s, "\x42", "\0\1\1\0\0\0\1\xFF\0\5\0\0\x0A\x48\x08\1\2Me\3One"s, i);
        const bool clocked = i % 2 == 0;
        const uint64_t pcr = uint64_t{i} * 270'000 + (i % 20 == 10 ? 135'000 : 0);
        if (clocked)
            datagram += Packet({.pid = 0x101, .payload = false, .pcr = pcr});
        for (int packet = 0; packet < (clocked ? 2 : 3); ++packet) {
            video += i == 30 && packet == 1 ? 2 : 1;
            datagram += Packet({.pid = 0x101, .counter = video});
        }
        datagram += Packet({.pid = 0x102, .counter = i, .scrambled = true});
        analyzer.feed(BytesOf(datagram), 1s + i * 10ms + (i % 4 == 2 ? 1ms : 0ms));
    }
    return analyzer.report();
}

// Each figure is another one.
ts::MonitorReport MonitorMade() {
    ts::MonitorReport made;
    made.stream = AnalyzeMade();
    made.signal = true;
    made.withoutSignal = 1250ms;
    made.bitrate_bps = 1052900;
    made.nullShare = 0.125;
    ts::ReceptionReport& reception = made.reception;
    reception.counts = {51, 68000, 51, 4, 5, 2, {}};
    reception.smallest = 200;
    reception.largest = 1328;
    const ts::DatagramSource four{{192, 0, 2, 7}, 5001, false};
    reception.sources = {{four, 50, 0s, 0s}, {{{0xFF, 0x15}, 5003, true}, 1, 0s, 0s}};
    reception.rtp = {{51, 6, 7, 8, 9, 10, 11, 0, 12}, 0xABCD, 33, 0.1239, 89999.55};
    reception.intervals = {10.1, 12.2, 13.3};
    reception.dscps = {0, 34};
    reception.smallestTtl = 15;
    reception.largestTtl = 16;
    made.delivery = {14.5, 3.0, 15.5, 21.0, 42};
    made.pcrs = {true, 345ns};
    for (const auto check : {ts::Check::kNoSignal, ts::Check::kContinuity})
        made.checks[size_t(check)] = {
            17, 1500ms, 3600s, check == ts::Check::kContinuity,
            check == ts::Check::kNoSignal ? "PID 257\x1B" : std::string(50, 'd')};
    return made;
}

TEST(ToolReport, OfAStreamIsThatToTheLetter) {
    const FindingsPlace place{"rtp://239.1.1.1:5000", "One \"a\"\n", true, 3601s, 1'700'000'000s};
    const StreamFindings made(place, MonitorMade());
    ExpectGolden("stream.txt", findingsText(made));
    ExpectGolden("stream.json", findingsJson(made, false));
    ExpectGolden("stream.prom", findingsPrometheus({made}));
    const std::string line = findingsJson(made, true);
    EXPECT_EQ(json::parse(line), json::parse(findingsJson(made, false)));
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(findingsText({{"udp://@:5000"}, {}}), "udp://@:5000\nnothing has come\n");
    const json silence = json::parse(findingsJson({{"udp://@:5000"}, {}}, true));
    for (const char* key : {"encapsulation", "packet_size", "rtp", "ttl_min", "null_share"})
        EXPECT_TRUE(silence.at(key).is_null()) << key;
}

TEST(ToolReport, OfAHugeStreamIsCutAndSaysSo) {
    ts::MonitorReport huge;
    huge.stream.bytes = huge.stream.packets = 1;
    for (uint16_t i = 0; i < 8192; ++i) {
        const ElementaryStream stream{i, 27, "video", "H.264", "eng"};
        const Service service{1, std::string(120, 'n'), std::string(120, 'p')};
        if (i < 512)
            huge.stream.programmes.push_back({i, i, i, service, std::vector(200, stream)});
        huge.stream.pids.push_back(
            {i, "video", "H.264", "eng", std::vector<uint16_t>(512, 1), true, 1, 0, 0, 1});
        huge.stream.pcrs.push_back({i, 1, 0, 1.0 / 3, 2.0 / 3, 1e9 / 7, 1e6 / 7});
    }
    huge.reception.counts.datagrams = 1;
    huge.reception.sources.resize(16);
    huge.reception.dscps.resize(64);
    huge.checks.fill({1, 1s, 2s, true, std::string(200, 'd')});
    const StreamFindings findings({"udp://@:5000"}, huge);
    const std::string text = findingsText(findings), object = findingsJson(findings, false);
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
        EXPECT_EQ(dvbText(BytesOf(dvb)), "ä" + seen + "日");
    }
    EXPECT_EQ(printable("a\xFF\xC3(\xE2\x82\xC0\x80\xF8\n\xE2\x82"), "a?\?(????? ?\?");
    EXPECT_EQ(printable("\xE0\x80\x9B"), " ") << "ESC, written too long";
    EXPECT_EQ(shorten("äöüß", 4) + shorten("äöüßa", 4) + cutLines("äöü\nx", 2), "äöüßä...äö\nx");
}

}  // namespace
