// Configuration files of services.
#include <gtest/gtest.h>

#include <regex>

#include "config/ConfigFile.h"

namespace {

// The configuration in its full form, or what is wrong with it.
std::string Full(const std::string& text, bool asJson = false) try {
    return formatConfig(parseConfig(text, "f"), asJson);
} catch (const ConfigErrors& errors) {
    return errors.what();
}

TEST(ToolConfig, AllErrorsNameTheirLineColumnAndField) {
    std::string many = "send = [\n";  // more than there are channels
    for (int port = 1; port <= 17; ++port)
        many += "{input = 'a', url = 'udp://[::1]:" + std::to_string(port) + "'},\n";
    const std::pair<std::string, const char*> cases[] = {
        {"[[send]\n", "1:8 \n"},
        {"", "1:1 \n"},
        {"[send]\nurl = 1", "1:1 send\n"},
        {many + "]", "18:21 send[16].url\n"},
        {"send = [{input = '-', url = 'udp://[::1]:2', bitrat = 1},\n"
         "{input = '-', url = 'rtp://[::1]:2', loop = true, bitrate = 4294967296},\n"
         "{url = 'udp://@:1', loop = 1, bitrate = '2.5Q', start = -1}]\n"
         "receive = [{output = '-', url = 'udp://@:3', rotate_time = 1},\n"
         "{output = '-', url = 'udp://127.0.0.1:3'}]\n"
         "relay = [{from = 'udp://239.1.1.1:4', to = ['udp://239.2.1.1:4', 3]},\n"
         "{from = 'udp://239.2.1.1:4', to = ['udp://[::1]:4', 'rtp://239.1.1.1:4']},\n"
         "{from = 'udp://@:5', to = 'udp://127.1.1.1:5'}]\nsnd = 1\n",
         "1:46 send[0].bitrat\n"
         "2:10 send[1].input\n2:21 send[1].url\n2:45 send[1].loop\n2:61 send[1].bitrate\n"
         "3:1 send[2].input\n3:8 send[2].url\n3:28 send[2].loop\n3:41 send[2].bitrate\n"
         "3:57 send[2].start\n4:60 receive[0].rotate_time\n"
         "5:11 receive[1].output\n5:22 receive[1].url\n"
         "6:45 relay[0].to[0]\n6:66 relay[0].to[1]\n7:53 relay[1].to[1]\n8:27 relay[2].to\n"
         "9:1 snd\n"}};
    const std::regex error("f:(\\d+:\\d+):(?: ([^ :]+):)? [^\n]+");
    for (const auto& [text, places] : cases)
        EXPECT_EQ(std::regex_replace(Full(text) + "\n", error, "$1 $2"), places) << Full(text);
}

TEST(ToolConfig, UnknownKeyIsAnsweredWithOneThatIsNearOnly) {
    const std::pair<const char*, const char*> cases[] = {
        {"bitrat", "bitrate"}, {"inptu", "input"}, {"uri", "url"},  {"lop", "loop"},
        {"foo", nullptr},      {"name", nullptr},  {"to", nullptr}, {"output", nullptr}};
    for (const auto& [key, meant] : cases)
        EXPECT_EQ(Full(std::string("[[send]]\ninput='a'\nurl='udp://[::1]:1'\n") + key + "='1'"),
                  "f:4:1: send[0]." + std::string(key) + ": unknown key" +
                      (meant ? "; is '" + std::string(meant) + "' meant?" : ""));
}

// Names stay names: where they lead to shows only when the service runs.
TEST(ToolConfig, EntriesExcludeEachOtherOnOneInterfaceOnly) {
    const struct {
        const char* first;
        const char* second;
        bool relay;  // from the first to the second, instead of sending to both
        bool good;
    } cases[] = {
        {"udp://239.1.1.1:1?iface=a", "udp://239.1.1.1:1?iface=a", false, false},
        {"udp://239.1.1.1:1?iface=a", "udp://239.1.1.1:1?iface=b", false, true},
        {"udp://Encoder:1", "rtp://encoder:1", false, false},
        {"udp://encoder:1", "udp://encoder:2", false, true},
        {"udp://239.1.1.1:1?iface=a", "udp://239.1.1.1:1", true, false},
        {"udp://239.1.1.1:1?iface=a", "udp://239.1.1.1:1?iface=b", true, true},
        {"udp://192.0.2.9@239.1.1.1:1", "udp://239.1.1.1:1", true, true},
    };
    for (const auto& c : cases) {
        const std::string text =
            std::string(c.relay ? "relay = [{from = '" : "send = [{input = '/a', url = '") +
            c.first + (c.relay ? "', to = '" : "'}, {input = '/a', url = '") + c.second + "'}]";
        EXPECT_EQ(!Full(text).starts_with("f:"), c.good) << Full(text);
    }
}

TEST(ToolConfig, GoodFileComesToTheSameWhenItsFullFormIsRead) {
    const char* const text =
        "send = [{input = '/a', url = 'RTP://@[ff15:0::1]:5?localaddr=[::1]', bitrate = '2.5M'}]\n"
        "receive = [{url = 'udp://Encoder@232.1.1.1:9?iface=lo&fifo_size=5&ttl=1', output = 'a'}]\n"
        "relay = [{from = 'udp://239.1.1.1:7?localaddr=127.0.0.1', to = ['udp://127.0.0.1:7',\n"
        " 'udp://239.1.1.1:7?ttl=3&dscp=34&localaddr=127.0.0.2']}]\n";
    const std::string json = Full(Full(text), true);
    EXPECT_EQ(
        std::regex_replace(json, std::regex("\\s"), ""),
        R"({"receive":[{"output":"a","url":"udp://232.1.1.1:9?source=encoder&iface=lo"}],)"
        R"("relay":[{"from":"udp://239.1.1.1:7?localaddr=127.0.0.1",)"
        R"("to":["udp://127.0.0.1:7","udp://239.1.1.1:7?ttl=3&dscp=34&localaddr=127.0.0.2"]}],)"
        R"("send":[{"bitrate":2500000,"input":"/a","loop":false,)"
        R"("url":"rtp://[ff15::1]:5?ttl=16&localaddr=::1"}]})");
}

}  // namespace
