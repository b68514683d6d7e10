#include "../test.h"

#include <UdpSocket/protocol/tcp_framing.h>

namespace {

/// A message of the stream, with bytes that tell where they stand.
std::string message(const std::string& start, std::size_t length) {
    std::string result = start;
    while (result.size() < length)
        result += static_cast<char>('a' + result.size() % 26);
    return result;
}

const std::string kSeven = message("\x01\xB2ZQ-7", 222);
const std::string kEight = message("\x01\xB2ZQ-8", 222);
const std::string kReply = message("\x01\xC2", 38);

using Messages = std::vector<std::string>;

/// What a stream that arrives in these chunks is cut into.
Messages cut(const std::vector<std::string>& chunks) {
    protocol::TcpFraming framing;
    Messages messages;
    for (const std::string& chunk : chunks)
        if (const std::string_view complete = framing.add(chunk); !complete.empty())
            messages.emplace_back(complete);
    return messages;
}

TEST(TcpFraming, StreamIsPickedUpAtTheStartOfAMessage) {
    EXPECT_EQ(cut({kSeven.substr(100), kSeven}), Messages{kSeven});
    EXPECT_EQ(cut({"\x01\xB2Z", kSeven.substr(3)}), Messages()) << "four bytes show an announcement's start";
    EXPECT_EQ(cut({"\x01\xB2ZQ", kSeven.substr(4)}), Messages{kSeven});
    EXPECT_EQ(cut({"\x01\xC2", kReply.substr(2)}), Messages()) << "three bytes a reply's";
    EXPECT_EQ(cut({kReply.substr(0, 3), kReply.substr(3)}), Messages{kReply});
    EXPECT_EQ(cut({message("\x01\xB2-AB-9", 222), message("\x02\xB2ZQ", 222), ""}), Messages())
        << "a fixed radar's name begins with ZQ";
}

TEST(TcpFraming, MessageIsCompleteAtItsLengthHoweverItIsCut) {
    for (const std::string& whole : {kSeven, kReply}) {
        Messages chunks{whole.substr(0, 4)};
        for (std::size_t i = 4; i < whole.size(); ++i) {
            EXPECT_EQ(cut(chunks), Messages()) << i;
            chunks.push_back(whole.substr(i, 1));
        }
        EXPECT_EQ(cut(chunks), Messages{whole});
    }
    EXPECT_EQ(cut({kSeven, kReply, kEight}), (Messages{kSeven, kReply, kEight}));
    const std::string inside = kSeven.substr(0, 4) + "\x01\xB2" + kSeven.substr(6);
    EXPECT_EQ(cut({inside.substr(0, 4), inside.substr(4)}), Messages{inside})
        << "no start: not a radar's name";
}

TEST(TcpFraming, OnlyTheFirstMessageOfAChunkAndTheLastThatBeganAreKept) {
    EXPECT_EQ(cut({kSeven + kEight, kEight.substr(100)}), Messages{kSeven});
    EXPECT_EQ(cut({kReply + "x", kSeven.substr(100)}), Messages{kReply});
    EXPECT_EQ(cut({kSeven.substr(0, 60), kReply, kSeven.substr(60)}), Messages{kReply});
    EXPECT_EQ(cut({kReply.substr(0, 20), kEight.substr(0, 60), kEight.substr(60)}), Messages{kEight});
}

} // namespace
