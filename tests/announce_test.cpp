// How streams are made known: descriptions of sessions, and the packets that carry them.

#include "media/Sdp.h"

namespace {

std::string UrlOf(const std::string& text) try {
    return urlOfSdp(text, "f");
} catch (const UsageError& error) {
    return error.what();
}

TEST(Sdp, FirstTransportStreamBecomesTheUrlOrTheReasonIsTold) {
    const std::string group = "c=IN IP4 239.1.1.1/16\n";
    const std::string video = "m=video 5000 RTP/AVP 33\n";
    const std::pair<std::string, const char*> cases[] = {
        {"s=-\n" + group + video, "rtp://239.1.1.1:5000"},
        {video + group, "rtp://239.1.1.1:5000"},
        {group + "m=audio 4 RTP/AVP 0\r\nm=video 5000/1 rtp/avp 33 96\r\nc=IN IP6 ff15::1\r\n",
         "rtp://[ff15::1]:5000"},
        {"c=IN IP4 0.0.0.0\nm=video 5000 UDP 33\n", "udp://0.0.0.0:5000"},
        {"c=IN IP4 encoder7\nm=data 5000 MP2T/H2221/UDP 33\n", "udp://encoder7:5000"},
        {group + "a=source-filter: incl IN IP4 239.1.1.1 192.0.2.7\n" + video,
         "rtp://239.1.1.1:5000?source=192.0.2.7"},
        {group + video + "a=source-filter:incl IN IP4 * 192.0.2.7\r\n",
         "rtp://239.1.1.1:5000?source=192.0.2.7"},
        // Of several, any may send; and this one is not to.
        {group + video + "a=source-filter: incl IN IP4 * 192.0.2.7 192.0.2.8\n",
         "rtp://239.1.1.1:5000"},
        {group + video + "a=source-filter: excl IN IP4 * 192.0.2.7\n", "rtp://239.1.1.1:5000"},
        {group + "m=video 5000 RTP/AVP 96\na=rtpmap:96 H264/90000\n", "'f': it describes no"},
        {group + "m=video 5000 RTP/AVP 96 97\na=rtpmap:96 H264/90000\na=rtpmap:97 mp2t/90000\n",
         "rtp://239.1.1.1:5000"},
        // Each group has a source of its own.
        {"a=source-filter: incl IN IP4 239.1.1.1 192.0.2.7\n"
         "a=source-filter: incl IN IP4 239.1.1.2 192.0.2.8\n" +
             video + group,
         "rtp://239.1.1.1:5000?source=192.0.2.7"},
        {group + "m=video 0 RTP/AVP 33\n", "'f': it describes no"},
        {group + "m=video 70000 RTP/AVP 33\n", "'f': it describes no"},
        {video, "'f': it has no line c="},
        {group + video + "a=source-filter: incl IN IP4 * 192.0.2.7&iface=lo\n", "'f': the source"},
        {"c=IN IP4 239.1.1.1?ttl=4\n" + video, "'f': what it describes cannot be received"},
        {group + std::string(1, '\0') + video, "'f': it is no session description"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_TRUE(UrlOf("v=0\no=- 1 1 IN IP4 192.0.2.7\n" + text).starts_with(expected))
            << text << UrlOf("v=0\n" + text);
    EXPECT_TRUE(UrlOf("m=video 5000 RTP/AVP 33").starts_with("'f': it is no session"));
}

TEST(Sdp, WhatIsWrittenIsExactAndIdentifiesTheStream) {
    const StreamUrl url = parseStreamUrl("rtp://239.1.1.1:5000?ttl=4&localaddr=192.0.2.7");
    const std::string id = std::to_string(sessionOf(url, "News\n1"));
    EXPECT_EQ(writeSdp(url, "News\n1", "192.0.2.7"),
              "v=0\r\no=- " + id +
                  " 1 IN IP4 192.0.2.7\r\ns=News 1\r\nc=IN IP4 239.1.1.1/4\r\nt=0 0\r\n"
                  "a=tool:qxvrtp\r\na=type:broadcast\r\nm=video 5000 RTP/AVP 33\r\n"
                  "a=rtpmap:33 MP2T/90000\r\n"
                  "a=source-filter: incl IN IP4 239.1.1.1 192.0.2.7\r\n");
    const std::string six = writeSdp(parseStreamUrl("rtp://[ff12::1%lo]:6"), "", "fe80::1%lo");
    EXPECT_NE(six.find(" 1 IN IP6 fe80::1\r\ns=-\r\nc=IN IP6 ff12::1\r\n"), std::string::npos);
    EXPECT_NE(sessionOf(url, "a"), sessionOf(url, "b"));
    EXPECT_NE(sessionOf(url, "a"), sessionOf(parseStreamUrl("rtp://239.1.1.1:5000?ttl=4"), "a"));
    EXPECT_EQ(sdpFileName(url), "239.1.1.1_5000_192.0.2.7.sdp");
    EXPECT_EQ(sdpFileName(parseStreamUrl("rtp://[ff12::1%lo]:6")), "ff12--1-lo_6.sdp");
}

TEST(Sap, GroupIsThatOfTheScopeAndThePacketIsLaidOutToTheByte) {
    const std::pair<const char*, const char*> cases[] = {{"224.2.128.1", "224.2.127.254"},
                                                         {"239.1.1.1", "224.2.127.254"},
                                                         {"239.255.1.1", "239.255.255.255"},
                                                         {"239.192.0.1", "239.195.255.255"},
                                                         {"239.195.1.1", "239.195.255.255"},
                                                         {"239.196.0.1", "224.2.127.254"},
                                                         {"224.0.0.99", "224.0.0.255"},
                                                         {"[ff15::1]", "ff05::2:7ffe"},
                                                         {"[ff02::1%lo]", "ff02::2:7ffe"},
                                                         {"[ff3e::8000:1]", "ff0e::2:7ffe"},
                                                         {"192.0.2.7", ""},
                                                         {"[::1]", ""}};
    for (const auto& [host, group] : cases)
        EXPECT_EQ(sapGroup(parseStreamUrl(std::string("rtp://") + host + ":5000")), group) << host;

    EXPECT_EQ(sapPacket("v=0", 0xABCDEF, "192.0.2.7", false),
              std::string("\x20\0\xCD\xEF\xC0\0\2\7application/sdp\0v=0", 27));
    EXPECT_EQ(sapPacket("v=0", 0xAB0000, "192.0.2.7", false)[3], 1) << "0 may be left out";
    EXPECT_EQ(sapPacket("v=0", 1, "::1", true)[0], 0x34);
    EXPECT_EQ(sapPacket("v=0", 1, "::1", true).size(), 4U + 16 + 16 + 3);
    EXPECT_TRUE(sapPacket("v=0", 1, "name", false).empty());

    // At least every five minutes, by up to a third more or less, and seldom where there are many.
    EXPECT_EQ(sapInterval(400, 1, 0.5), std::chrono::seconds(300));
    EXPECT_EQ(sapInterval(400, 1, 0.0), std::chrono::seconds(200));
    EXPECT_EQ(sapInterval(500, 1000, 0.5), std::chrono::seconds(1000));
}

}  // namespace
