#include <UdpSocket/md5.h>

#include <gmock/gmock.h>

#include <sys/mman.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>

namespace {

std::string inHex(const unsigned char (&digest)[16]) {
    std::string text;
    for (const unsigned char byte : digest) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

/// The digest of what a context has taken so far; the context can go on afterwards.
std::string digestOf(MD5_CTX context) {
    unsigned char digest[16];
    MD5().MD5Final(&context, digest);
    return inHex(digest);
}

void add(MD5_CTX& context, std::string piece) {
    MD5().MD5Update(&context, reinterpret_cast<unsigned char*>(piece.data()),
                    static_cast<unsigned int>(piece.size()));
}

MD5_CTX newContext() {
    MD5_CTX context;
    MD5().MD5Init(&context);
    return context;
}

std::string digestOf(const std::string& message) {
    MD5_CTX context = newContext();
    add(context, message);
    return digestOf(context);
}

std::string randomMessage(size_t size) {
    static std::minstd_rand engine(6720);
    std::string message(size, '\0');
    for (char& byte : message)
        byte = static_cast<char>(engine() >> 8);
    return message;
}

TEST(Md5, TheStandardsOwnMessagesGiveItsDigests) {
    const std::pair<const char*, const char*> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [message, digest] : suite)
        EXPECT_EQ(digestOf(std::string(message)), digest) << message;
}

TEST(Md5, EveryLengthAroundABlockAgreesWithMd5sum) {
    char pattern[] = "/tmp/md5_test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path directory = pattern;
    std::vector<std::string> expected;
    for (size_t size = 0; size <= 130; ++size) {
        char name[8];
        std::snprintf(name, sizeof name, "%03zu", size);
        const std::string message = randomMessage(size == 130 ? 1000003 : size);
        std::ofstream(directory / name, std::ios::binary) << message;
        expected.push_back(digestOf(message) + "  " + name + "\n");
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> output(
        ::popen(("cd " + directory.string() + " && md5sum *").c_str(), "r"), &::pclose);
    char line[64];
    for (const std::string& digest : expected) {
        ASSERT_NE(std::fgets(line, sizeof line, output.get()), nullptr);
        EXPECT_EQ(line, digest);
    }
    std::filesystem::remove_all(directory);
}

TEST(Md5, PiecesGiveTheDigestOfTheWhole) {
    const std::string message = randomMessage(300);
    const std::string whole = digestOf(message);
    for (size_t first = 0; first <= 130; ++first)
        for (const size_t second : {0, 1, 63, 64, 65, 130}) {
            MD5_CTX context = newContext();
            add(context, message.substr(0, first));
            add(context, message.substr(first, second));
            add(context, message.substr(first + second));
            ASSERT_EQ(digestOf(context), whole) << first << " and " << second;
        }
}

TEST(Md5, AMessageBeyondTheLowCountWordGivesTheSameDigestAtOnceAndInPieces) {
    constexpr unsigned int size = (1U << 29) + 101; // 2^32 bits and a little more
    void* const zeros = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(zeros, MAP_FAILED);
    auto* const bytes = static_cast<unsigned char*>(zeros);
    constexpr const char* expected = "edf30fd644ead34569f8ec2ca92d5bfc"; // as md5sum has it

    MD5_CTX atOnce = newContext();
    MD5().MD5Update(&atOnce, bytes, size);
    EXPECT_EQ(atOnce.count[0], 808U);
    EXPECT_EQ(atOnce.count[1], 1U);
    EXPECT_EQ(digestOf(atOnce), expected);

    MD5_CTX inPieces = newContext();
    MD5().MD5Update(&inPieces, bytes, size - 165);
    MD5().MD5Update(&inPieces, bytes, 165);
    EXPECT_EQ(inPieces.count[1], 1U) << "the low word's overflow is carried";
    EXPECT_EQ(digestOf(inPieces), expected);
    ::munmap(zeros, size);
}

TEST(Md5, TheContextKeepsItsStateAfterTheDigest) {
    MD5_CTX context = newContext();
    add(context, "abc");
    unsigned char first[16];
    unsigned char second[16];
    MD5().MD5Final(&context, first);
    unsigned char kept[16];
    MD5().MD5Encode(kept, context.state, sizeof kept);
    EXPECT_EQ(inHex(kept), inHex(first));
    MD5().MD5Final(&context, second);
    EXPECT_NE(inHex(second), inHex(first));
}

TEST(Md5, WordsAreBytesLowByteFirst) {
    unsigned char bytes[] = {1, 2, 3, 4, 0xFC, 0xFD, 0xFE, 0xFF};
    unsigned int words[2];
    MD5().MD5Decode(words, bytes, sizeof bytes);
    EXPECT_THAT(words, testing::ElementsAre(0x04030201U, 0xFFFEFDFCU));
    unsigned char again[8];
    MD5().MD5Encode(again, words, sizeof again);
    EXPECT_THAT(again, testing::ElementsAreArray(bytes));
}

} // namespace
