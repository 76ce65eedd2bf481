// Configuration files of services.

#include "ProcessSupport.h"
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
    const std::pair<std::string, const char*> cases[] = {{"[[send]\n", "f:1:8: "},
                                                         {"", "f:1:1: "},
                                                         {"[send]\nurl = 1", "f:1:1: send: "},
                                                         {many + "]", "f:18:21: send[16].url: "}};
    for (const auto& [text, place] : cases)
        EXPECT_TRUE(Full(text).starts_with(place)) << Full(text);
    ExpectGolden("wrong.toml.errors", Full(Contents(TestFile("cases/wrong.toml"))) + '\n');
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
        {"rtp://239.1.1.2:1+rtp://239.1.1.1:1", "udp://239.1.1.1:1", true, false},
    };
    for (const auto& c : cases) {
        const std::string text =
            std::string(c.relay ? "relay = [{from = '" : "send = [{input = '/a', url = '") +
            c.first + (c.relay ? "', to = '" : "'}, {input = '/a', url = '") + c.second + "'}]";
        EXPECT_EQ(!Full(text).starts_with("f:"), c.good) << Full(text);
    }
}

TEST(ToolConfig, GoodFileComesToTheSameWhenItsFullFormIsRead) {
    const std::string full = Full(Contents(TestFile("cases/good.toml")));
    ExpectGolden("good.toml.full", full);
    ExpectGolden("good.toml.json", Full(full, true));
}

}  // namespace
